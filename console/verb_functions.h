#pragma once

// One function for each verb. Each returns the exit status, and prints the reason on standard error when
// that is not kDone.

#include "options.h"

namespace console {

int list(const Options& options);
int save(const Options& options);
int load(const Options& options);
int remove(const Options& options);
int autosave(const Options& options);
int check_old(const Options& options);
int shell(const Options& options);
int version(const Options& options);

}  // namespace console
