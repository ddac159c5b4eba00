#pragma once

// Restores that are pending, or were interrupted.

#include <iosfwd>

#include "report.h"

namespace console {

/// Finishes or undoes what was interrupted.
cs::Result<cs::Recovery> recover_in_time(const Deadline& deadline);

/// Takes a pending restore back.
cs::Result<cs::Recovery> revert_in_time(cs::When when, const Deadline& deadline);

/// Prints what was done, if anything was. Returns kDone.
int print_recovery(std::ostream& out, const cs::Recovery& done);

/// Prints on standard error which restore is pending or was interrupted, and changes nothing. What is not
/// known for the same reason as `known`, which is printed anyhow, is not printed.
void print_unfinished(const Options& options, const cs::Error& known);

/// Before most verbs: takes back a restore whose time is up, and prints on standard error that one is
/// pending. `goes_on`: the verb does its work even if the record of restores cannot be read, and a warning
/// says that. True if it has taken one back.
bool settle_pending(const Options& options, bool goes_on);

/// Before a verb that changes something: what an interrupted restore has left is finished or undone, and
/// printed on standard error. The library would do it in silence. What fails, the verb meets again.
void settle_interrupted(const Options& options);

}  // namespace console
