#pragma once

#include <iosfwd>

#include "report.h"

namespace console {

/// Finishes or undoes what was interrupted; waits for others as long as given.
cs::Result<cs::Recovery> recover_in_time(unsigned seconds);

/// Prints what was done, if anything was. Returns kDone.
int print_recovery(std::ostream& out, const cs::Recovery& done);

/// Before a verb that changes something: what an interrupted restore has left is finished or undone, and
/// printed on standard error. The library would do it in silence. What fails, the verb meets again.
void mention_recovery();

}  // namespace console
