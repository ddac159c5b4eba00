#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "snapshots/database.h"

namespace ConfSave::snapshots {

/// What is kept about one row beside the storage.
struct Note {
  std::string comment;
  std::string author;
  bool pinned = false;
};

/// "notes.db" in the state directory: an SQLite file of our own, mode 0600. A note belongs to the row whose
/// id, save time and archive sizes it was written for, because ids recur when storage.db is replaced.
///
/// Without the file there are no notes. A file that cannot be read, or that a newer version wrote, is an
/// error here; who only reads snapshots goes on without notes.
class Notes {
 public:
  /// No value if there is no file.
  static Result<std::optional<Notes>> open(std::chrono::milliseconds wait);

  /// Makes the file if there is none.
  static Result<Notes> open_to_write(std::chrono::milliseconds wait);

  /// The notes that belong to `snapshots`, by id.
  Result<std::map<int64, Note>> read(const Snapshots& snapshots);

  /// Lets `change` change the note of a row, durably. Nobody else changes it meanwhile.
  Error change(const Snapshot& snapshot, const std::function<void(Note&)>& change);

 private:
  explicit Notes(Database database) : database_(std::move(database)) {}

  /// Makes the tables in an empty file; refuses those of a newer version.
  Error prepare_tables();
  Result<int64> layout();
  /// Nothing is written into a damaged file.
  Error check();
  Error read_and_replace(const Snapshot& snapshot, const std::function<void(Note&)>& change);
  Error replace(const Snapshot& snapshot, const Note& note);

  Database database_;
};

}  // namespace ConfSave::snapshots
