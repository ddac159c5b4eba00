#pragma once

#include <optional>
#include <vector>

#include "snapshots/deadline.h"
#include "snapshots/notes.h"

namespace ConfSave::snapshots {

/// Writes comments and pins of new rows before the commit of the storage, so that no kill loses them. Until
/// then the notes of the old rows stay: they have other ids. If the rows are not committed, their notes
/// belong to no row, and are deleted again. After a kill, a later row may get such an id: the note does not
/// belong to it, because its save time and lengths differ.
class EarlyNotes {
 public:
  explicit EarlyNotes(const Deadline& deadline) : deadline_(deadline) {}

  /// Before the transaction of the storage: it takes time to look into the file.
  void open();

  /// In the transaction, when all rows are inserted. Notes that cannot be written now are no error, and may
  /// be written afterwards, unless a pin would be lost. Opens the file unless open() was called.
  Error write(const std::vector<NewNote>& notes);

  /// Whether the note of this row is written.
  bool has(const Snapshot& row) const;

  /// The transaction has failed. If its rows may be stored all the same, the notes stay.
  void take_back(const Error& why);

  /// For what follows the commit. Opens the file again if it could not be opened.
  Result<Notes*> afterwards();

 private:
  Deadline deadline_;
  std::optional<Notes> notes_;
  Error error_;
  std::vector<int64> written_;  ///< ids of rows
};

}  // namespace ConfSave::snapshots
