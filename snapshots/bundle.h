#pragma once

#include <optional>
#include <string>
#include <vector>

#include "snapshots/database.h"
#include "snapshots/notes.h"
#include "snapshots/row_copy.h"

namespace ConfSave::snapshots {

/// The directory of the configuration where an exported file was made: the paths of its manifests begin
/// with it.
extern const char* const kOriginTable;

/// A row of a file that nobody vouches for, with values of the right types.
struct BundleRow {
  int64 rowid = 0;
  Snapshot snapshot;
};

/// An exported file, or the storage of another gateway, which may be hostile: opened for reading only, its
/// schema compared with ours, its structure checked as a whole. Every failure that lies in the file is
/// Code::damaged, and `path` is the file.
class Bundle {
 public:
  static Result<Bundle> open(const std::string& file, const Deadline& deadline);

  /// The rows whose name matches, in the order of ids. A name or version that no save would take, or a
  /// value of another type, is Code::damaged.
  Result<std::vector<BundleRow>> rows(const std::string& pattern, const std::optional<int64>& version);

  /// The notes of a row, checked as far as they can be without its archives.
  Result<Note> note(const Snapshot& snapshot);

  /// The manifest of a row, with paths of this gateway and without what only the other one knows.
  Result<std::optional<Manifest>> manifest(const Snapshot& snapshot);

  Database& database() { return database_; }
  const std::string& file() const { return database_.file(); }

  Error damaged(const std::string& text) const;
  /// What an error of SQLite means here.
  Error explain(Error error) const;

 private:
  explicit Bundle(Database database) : database_(std::move(database)) {}

  Error check();
  Error check_schema();
  Error check_columns();
  Error check_structure();
  Error open_notes(const Deadline& deadline);
  Result<BundleRow> read_row(const Statement& values) const;
  Result<std::string> here(const std::string& path) const;

  Database database_;
  std::optional<Notes> notes_;
  std::string origin_;
};

}  // namespace ConfSave::snapshots
