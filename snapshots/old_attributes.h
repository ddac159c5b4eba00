#pragma once

#include "snapshots/beneath.h"
#include "snapshots/extended_attributes.h"
#include "snapshots/plan.h"

namespace ConfSave::snapshots {

/// Extended attributes of the regular file that goes, for the new one. Its access list too, unless it
/// belongs to somebody who has no say in who reads the new one. A file that `may_be_locked` by the host
/// keeps the locks.
Result<ExtendedAttributes> attributes_of_old(const PlannedStep& planned, Beneath& beneath,
                                             bool may_be_locked);

}  // namespace ConfSave::snapshots
