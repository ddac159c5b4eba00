#pragma once

// One function for each verb. Each returns the exit status, and prints the reason on standard error when
// that is neither kDone nor kFindings.

#include "options.h"

namespace console {

int list(const Options& options);
int show(const Options& options);
int save(const Options& options);
int diff(const Options& options);
int confirm(const Options& options);
int revert(const Options& options);
int load(const Options& options);
int recover(const Options& options);
int show_status(const Options& options);
int verify(const Options& options);
int note(const Options& options);
int pin(const Options& options);
int unpin(const Options& options);
int remove(const Options& options);
int prune(const Options& options);
int autosave(const Options& options);
int check_old(const Options& options);
int export_snapshots(const Options& options);
int import_snapshots(const Options& options);
int shell(const Options& options);
int version(const Options& options);

}  // namespace console
