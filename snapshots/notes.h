#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "snapshots/database.h"
#include "snapshots/deadline.h"
#include "snapshots/manifest.h"

namespace ConfSave::snapshots {

/// What is kept about one row beside the storage.
struct Note {
  std::string comment;
  std::string author;
  bool pinned = false;

  bool is_empty() const { return comment.empty() && author.empty() && !pinned; }
};

/// The note of a row that is stored, or about to be.
struct NewNote {
  Snapshot snapshot;
  Note note;
  int64 replaced = 0;      ///< the row of which it takes the place, or 0
  bool keeps_pin = false;  ///< that row is pinned
};

/// "notes.db" in the state directory: an SQLite file of our own, mode 0600. A note belongs to the row whose
/// id, save time and archive sizes it was written for, because ids recur when storage.db is replaced.
///
/// Without the file there are no notes. A link to nothing, and a file that cannot be read, or that a newer
/// version wrote, is an error here; who only reads snapshots goes on without notes.
class Notes {
 public:
  /// No value if there is no file.
  static Result<std::optional<Notes>> open(std::chrono::milliseconds wait);

  /// The notes in a file that is open already, with manifests of any directory; no value if it has none.
  static Result<std::optional<Notes>> open_in(Database database);

  /// Makes the tables in a file that has none.
  static Result<Notes> make_in(Database database);

  /// The tables, as SQLite keeps their statements.
  static std::set<std::string> schema();

  /// Makes the file unless it exists.
  static Result<Notes> open_to_write(std::chrono::milliseconds wait);

  /// The notes that belong to `snapshots`, by id.
  Result<std::map<int64, Note>> read(const Snapshots& snapshots);

  /// Writes the notes of rows, all or none, durably.
  Error write(const std::vector<NewNote>& notes);

  /// Lets `change` change the note of a row, durably. Nobody else changes it meanwhile.
  Error change(const Snapshot& snapshot, const std::function<void(Note&)>& change);

  /// Replaces the note and the manifest of a row, both or neither, durably. Forgets the row `replaced`, of
  /// which `snapshot` took the place, unless it is 0.
  Error replace_manifest(const Snapshot& snapshot, const Note& note, const Manifest& manifest,
                         int64 replaced = 0);

  /// Reads the manifest that belongs to `snapshot`; no value without a whole one, or if the configuration
  /// was in another directory. From now on, and as long as this object lives, the notes are of one moment.
  Result<std::optional<ManifestReader>> open_manifest(const Snapshot& snapshot);

  /// The same, the manifest as a whole.
  Result<std::optional<Manifest>> manifest(const Snapshot& snapshot);

  /// The same, its files.
  Result<std::optional<Tree>> tree(const Snapshot& snapshot);

  /// The same, its parents; none without a manifest.
  Result<Parents> parents(const Snapshot& snapshot);

  /// Forgets everything about the row `id`, durably.
  Error forget(int64 id);

  /// From now on all waits for locks take no longer than `wait` together.
  void limit_wait(std::chrono::milliseconds wait) { database_.limit_wait(wait); }

  /// Reads all notes, without their manifests.
  Error look();

  /// Deletes manifests that belong to none of `rows`, a few in each call: another program deletes rows
  /// without them. Notes stay: they are small, and the storage may be another one for a while.
  Error sweep(const Snapshots& rows);

 private:
  explicit Notes(Database database) : database_(std::move(database)) {}

  Error sync_deletions();
  /// Makes the tables in an empty file, and those that an older version did not make; refuses those of a
  /// newer version.
  Error prepare_tables();
  Error make_tables();
  Result<int64> layout();
  /// Nothing is written into a damaged file.
  Error check();
  Error damaged(int number, const std::string& how) const;
  /// The error of the last call that failed.
  Error failure() const;
  Error read_and_replace(const Snapshot& snapshot, const std::function<void(Note&)>& change);
  Error replace(const Snapshot& snapshot, const Note& note);
  Error remove(int64 id);
  /// The ids of manifests that belong to none of `snapshots`, not too many.
  Result<std::vector<int64>> find_strangers(const Snapshots& snapshots);

  Database database_;
  std::string configuration_;  ///< where the files of manifests have to be; empty: anywhere
  bool has_parents_ = true;
};

/// Why the notes cannot be read; Code::ok without any.
Error look_at_notes(const Deadline& deadline);

/// Whether the notes pin this row. Notes that cannot be read could say so: their error.
Result<bool> is_pinned(const Snapshot& row, const Deadline& deadline);

/// The files of the manifest of `snapshot`; no value without one.
Result<std::optional<Tree>> find_tree(const Snapshot& snapshot, const Deadline& deadline);

/// The parents of the manifest of `snapshot`; none without one.
Result<Parents> find_parents(const Snapshot& snapshot, const Deadline& deadline);

}  // namespace ConfSave::snapshots
