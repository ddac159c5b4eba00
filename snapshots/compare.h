#pragma once

#include <functional>

#include "confsave/snapshots.h"
#include "snapshots/deadline.h"

namespace ConfSave::snapshots {

using EachMember = std::function<void(const Member&)>;

/// What differs between a snapshot and the live configuration. Calls `each` with the members of the
/// snapshot.
Result<Differences> compare_with_live(const Id& older, const Deadline& deadline, const EachMember& each);

}  // namespace ConfSave::snapshots
