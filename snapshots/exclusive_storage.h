#pragma once

#include "snapshots/database.h"

namespace ConfSave::snapshots {

/// Keeps every other process out of the storage, so that none packs a mixture of old and new files.
class ExclusiveStorage {
 public:
  /// Begins an exclusive transaction; Code::busy after the deadline. Whatever is not committed is rolled
  /// back when this object goes.
  static Result<ExclusiveStorage> open(const Deadline& deadline);

  /// Sets the load time of a row, as far as it can be done without the commit: a full disk is met here.
  /// Code::changed_meanwhile if the row is not there any more.
  Error stamp(const Snapshot& snapshot, int64 time);

  Error commit();

 private:
  explicit ExclusiveStorage(Database database) : database_(std::move(database)) {}

  Database database_;
};

}  // namespace ConfSave::snapshots
