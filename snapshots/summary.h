#pragma once

#include "confsave/snapshots.h"
#include "snapshots/deadline.h"

namespace ConfSave::snapshots {

/// What a look at all rows finds, except that of the packet filter.
struct Summary {
  int64 snapshots = 0;
  int64 newest = 0;           ///< save time; 0 without a row
  int64 newest_autosave = 0;  ///< the same of autosaves only
  int64 largest = 0;          ///< room that the archives of one row take
};

// Each row has to be read to summarize a storage, which takes long if there are very many. So the summary
// of such a storage is kept in the file "storage.db-summary" beside it, with a fingerprint of the storage:
// any change of the storage, by whatever program, makes it worthless, and the rows are read again. Nothing
// else depends on the file: a missing or damaged one only costs time.

/// The summary of the storage as it is now; all zero without one. Writes nothing.
Result<Summary> summarize(const Deadline& deadline);

/// Keeps the summary of a storage of many rows after it was changed. The caller holds
/// "confsave.lock". Waits for nobody; a failure is ignored.
void keep_summary() noexcept;

}  // namespace ConfSave::snapshots
