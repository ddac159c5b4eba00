#pragma once

#include <iosfwd>

#include "report.h"

namespace console {

/// Finishes or undoes what was interrupted; waits for others as long as given.
cs::Result<cs::Recovery> recover_in_time(unsigned seconds);

/// Prints what was done, if anything was. Returns kDone.
int print_recovery(std::ostream& out, const cs::Recovery& done);

}  // namespace console
