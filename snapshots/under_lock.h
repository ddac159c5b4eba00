#pragma once

#include "confsave/snapshots.h"
#include "snapshots/deadline.h"

namespace ConfSave::snapshots {

// For callers that hold "confsave.lock" and have checked the arguments. The `wait` of the options
// counts for nothing: all waiting ends at the deadline.

/// Recovers what an earlier restore has left. Code::pending if the restore of `id` waits for its check
/// or its confirmation; that of another snapshot is not disturbed.
Error recover_before(const Id& id, const Deadline& deadline);

/// What save() does.
Result<Saved> save_under_lock(const Id& id, const SaveOptions& options, const Deadline& deadline);

/// Deletes this row. Code::not_found if it is gone, or was overwritten, since it was listed.
Error remove_under_lock(const Snapshot& row, const Deadline& deadline);

}  // namespace ConfSave::snapshots
