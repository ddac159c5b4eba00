// note, pin: what is kept beside the storage.

#include "places.h"
#include "snapshots/arguments.h"
#include "snapshots/boundary.h"
#include "snapshots/lock.h"
#include "snapshots/notes.h"
#include "snapshots/recover.h"
#include "snapshots/reserve.h"
#include "snapshots/row_reader.h"
#include "snapshots/storage_reader.h"

namespace ConfSave::snapshots {
namespace {

/// Changes the note of one row within one transaction.
template <class Change>
Error change_note(const Id& id, const ChangeOptions& options, Change change) {
  const Deadline deadline(options.wait);
  const Result<Lock> lock = Lock::take("a note", deadline);
  if (!lock) return lock.error();
  if (Error error = recover_first(deadline); error.code != Code::ok && error.code != Code::pending) {
    return error;
  }
  Result<std::optional<StorageReader>> reader = StorageReader::open(deadline.left());
  if (!reader) return reader.error();
  if (!*reader) return not_found(id.name);
  const Result<Snapshot> row = row_of(**reader, id);
  if (!row) return row.error();
  Result<Notes> notes = Notes::open_to_write(deadline.left());
  if (!notes) return notes.error();
  Error error = notes->change(*row, change);
  Reserve::keep(storage_file());
  return error;
}

}  // namespace

Error note(const Id& id, const std::string& comment, const ChangeOptions& options) {
  return error_at_boundary([&] {
    if (Error error = check_comment(comment); error.code != Code::ok) return error;
    return change_note(id, options, [&](Note& note) { note.comment = comment; });
  });
}

Error pin(const Id& id, bool pinned, const ChangeOptions& options) {
  return error_at_boundary(
      [&] { return change_note(id, options, [&](Note& note) { note.pinned = pinned; }); });
}

}  // namespace ConfSave::snapshots
