#pragma once

#include <functional>
#include <optional>
#include <string>

#include "snapshots/database.h"

namespace ConfSave::snapshots {

/// A pattern that matches one name only.
std::string literally(const std::string& name);

/// Whether 'Config' is an ordinary table; false in a database that is still empty. A view or a virtual
/// table in its place, or a generated column, is Code::no_storage: reading one runs what the file says.
Result<bool> look_for_table(Database& database);

/// Reads "storage.db" of the platform. Waits for a lock no longer than `wait`.
class StorageReader {
 public:
  /// No value if there is no file, or no table in it, yet.
  static Result<std::optional<StorageReader>> open(std::chrono::milliseconds wait);

  /// Starts a read transaction: everything that follows is of the same moment.
  Error begin();

  /// Calls `row` for each row that matches.
  Error for_each(const Query& query, const std::function<Error(Snapshot)>& row);

  /// What a look at all rows needs of each.
  struct Counted {
    std::string name;
    int64 saved;
    int64 size;
  };

  /// Calls `row` for each row except that of the packet filter, in any order: a listing takes longer.
  Error count(const std::function<void(const Counted&)>& row);

  Database& database() { return database_; }

 private:
  explicit StorageReader(Database database) : database_(std::move(database)) {}

  Database database_;
};

}  // namespace ConfSave::snapshots
