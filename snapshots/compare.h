#pragma once

#include <functional>

#include "confsave/snapshots.h"
#include "snapshots/deadline.h"
#include "snapshots/tree.h"

namespace ConfSave::snapshots {

using EachMember = std::function<void(const Member&)>;

/// What differs between the files of a manifest, of a snapshot of `type`, and the live configuration. Calls
/// `each` with the members of the snapshot.
Result<Differences> compare_with_live(const Tree& saved, conftype type, const EachMember& each);

/// The same, by the archives of the snapshot: this takes longer.
Result<Differences> compare_with_live(const Id& older, const Deadline& deadline, const EachMember& each);

/// Of a snapshot whose manifest equals the live configuration: whether its archives can be decoded, and
/// have the very bytes. The manifest shows neither a damaged archive nor a change through a mapping that
/// leaves a file's time as it was. Live files that may not be read count as equal. The only error is
/// Code::busy.
Result<bool> has_bytes_of_live(const Snapshot& snapshot, const Deadline& deadline);

}  // namespace ConfSave::snapshots
