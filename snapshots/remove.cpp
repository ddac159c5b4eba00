// remove: deletes one row, and gives its pages back to the file system.

#include "snapshots/audit.h"
#include "snapshots/boundary.h"
#include "snapshots/lock.h"
#include "snapshots/notes.h"
#include "snapshots/reserve.h"
#include "snapshots/row_reader.h"
#include "snapshots/storage_reader.h"
#include "snapshots/summary.h"
#include "snapshots/text.h"
#include "snapshots/under_lock.h"

namespace ConfSave::snapshots {
namespace {

/// Each page that SQLite moves costs two in the journal, so this many cost at most 8 MiB.
constexpr int64 kBytesAtOnce = 4 << 20;
/// At most three quarters of the reserve; the rest is for pages of SQLite's own.
constexpr int64 kBytesInReserve = Reserve::kSize * 3 / 8;
/// Giving pages back can wait for the next deletion; a caller should not.
constexpr int kVacuumWait = 200;

/// Whether nobody has stored another one under its name since.
bool is_same_row(const Snapshot& now, const Snapshot& before) {
  return now.id == before.id && now.config.save_time == before.config.save_time &&
         now.keybase_size == before.keybase_size && now.etc_size == before.etc_size;
}

Error replaced(const Id& id) {
  return {Code::not_found, 0, "",
          "the snapshot '" + printable(id.name) +
              "' is gone; another one of its name is stored now, and stays"};
}

/// Why the row that was listed is not found: there may be another one of its name.
Error gone(StorageReader& reader, const Id& id, const Error& error) {
  return error.code == Code::not_found && row_of(reader, id) ? replaced(id) : error;
}

/// Code::pinned if the row is.
Error check_pin(const Snapshot& row, const Deadline& deadline) {
  const Result<bool> pinned = is_pinned(row, deadline);
  if (!pinned) return pinned.error();
  if (!*pinned) return {};
  return {Code::pinned, 0, "", "the snapshot '" + printable(row.config.name) + "' is pinned"};
}

Result<int64> number(Database& storage, const std::string& pragma) {
  Result<Statement> statement = storage.prepare("pragma " + pragma);
  if (!statement) return statement.error();
  if (statement->step() != SQLITE_ROW) return storage.error();
  return statement->number(0);
}

/// Overwriting what is deleted takes a journal as large as the row. Pages that the file gives back need no
/// overwriting, and on a full disk there is no room for it.
Error choose_overwriting(Database& storage, bool disk_is_full) {
  const Result<int64> layout = number(storage, "auto_vacuum");
  if (!layout) return layout.error();
  return *layout != 0 || disk_is_full ? storage.run("pragma secure_delete=off") : Error{};
}

/// Within a transaction. Values of other types than the table's count as what they are listed as.
Error delete_row(Database& storage, const Snapshot& row) {
  Result<Statement> statement = storage.prepare(
      "delete from Config where id = ? and cast(name as text) = ? and "
      "ifnull(cast(version as integer), 0) = ?");
  if (!statement) return statement.error();
  statement->bind(row.id).bind(row.config.name).bind(row.config.vers);
  if (statement->step() != SQLITE_DONE) return storage.error();
  if (sqlite3_changes(storage.get()) == 1) return {};
  return {Code::no_storage, 0, storage.file(), "more than one row has the same id, name and version"};
}

/// Moves free pages to the end of the file and cuts them off, some in each transaction. A failure is
/// ignored: the pages stay free, and the next deletion goes on. A file without a pointer map, which an old
/// program has made, keeps its size, and its free pages are used again.
void give_back_pages(Database& storage, Reserve& reserve) {
  const Result<int64> page = number(storage, "page_size");
  if (!page) return;
  sqlite3_busy_timeout(storage.get(), kVacuumWait);
  int64 before = 0;
  for (;;) {
    const Result<int64> free = number(storage, "freelist_count");
    if (!free || *free == 0 || *free == before) return;
    before = *free;
    const Error error = reserve.run([&] {
      const int64 pages = (reserve.is_needed() ? kBytesInReserve : kBytesAtOnce) / *page;
      return storage.run(("pragma incremental_vacuum(" + std::to_string(pages) + ")").c_str());
    });
    if (error.code != Code::ok) return;
  }
}

/// After a deletion that has failed. Without its commit the row is there again.
Error deletion_failed(StorageReader& reader, const Id& id, const Snapshot& row, Error error) {
  if (error.code == Code::busy) return error;
  const Result<Snapshot> now = row_of(reader, id, &row);
  if (now && is_same_row(*now, row)) return error;
  error.aftermath = Aftermath::perhaps_done;
  error.text = "what was to be deleted may be gone all the same: " + error.text;
  return error;
}

/// What fails here leaves a note that belongs to no row.
void forget_note(int64 id, const Deadline& deadline) {
  Result<std::optional<Notes>> notes = Notes::open(deadline.left());
  if (notes && *notes) (*notes)->forget(id);
}

/// Only the row `only`, if it is given. `removed` gets the row.
Error remove_row(const Id& id, const RemoveOptions& options, const Deadline& deadline, const Snapshot* only,
                 Snapshot* removed) {
  Result<std::optional<StorageReader>> reader = StorageReader::open(deadline.left());
  if (!reader) return reader.error();
  if (!*reader) return not_found(id.name);
  Database& storage = (*reader)->database();
  if (Error error = storage.sync_deletions(); error.code != Code::ok) return error;

  Reserve reserve(storage);
  std::optional<Snapshot> deleted;
  Error error = reserve.run([&]() -> Error {
    if (Error failure = choose_overwriting(storage, reserve.is_needed()); failure.code != Code::ok) {
      return failure;
    }
    const Result<Snapshot> row = row_of(**reader, id, only);
    if (!row && only != nullptr) return gone(**reader, id, row.error());
    if (!row) return row.error();
    if (only != nullptr && !is_same_row(*row, *only)) return replaced(id);
    if (!options.even_pinned) {
      if (Error pinned = check_pin(*row, deadline); pinned.code != Code::ok) return pinned;
    }
    deleted = *row;
    if (removed != nullptr) *removed = *row;
    return delete_row(storage, *row);
  });
  if (error.code == Code::ok) give_back_pages(storage, reserve);
  reserve.take_back();
  Reserve::keep(storage.file());
  if (error.code == Code::ok) forget_note(deleted->id, deadline);
  if (error.code != Code::ok && deleted) return deletion_failed(**reader, id, *deleted, std::move(error));
  return error;
}

Error lock_and_remove(const Id& id, const RemoveOptions& options, const Snapshot* only, Snapshot& removed) {
  const Deadline deadline(options.wait);
  const Result<Lock> lock = Lock::take("a deletion", deadline);
  if (!lock) return lock.error();
  Error error = recover_before(id, deadline);
  // Perhaps the deletion makes the room that the recovery needs.
  if (error.code != Code::ok && error.code != Code::no_space) return error;
  error = remove_row(id, options, deadline, only, &removed);
  keep_summary();
  return error;
}

Error remove_and_log(const Id& id, const RemoveOptions& options, const Snapshot* only) {
  Snapshot removed;
  Error error = lock_and_remove(id, options, only, removed);
  if (error.code == Code::ok) {
    audit("delete", removed, "ok");
  } else {
    audit("delete", id, error);
  }
  return error;
}

}  // namespace

Error remove_under_lock(const Snapshot& row, const Deadline& deadline) {
  return remove_row({row.config.name, row.config.vers}, {}, deadline, &row, nullptr);
}

Error remove(const Id& id, const RemoveOptions& options) {
  return error_at_boundary([&] { return remove_and_log(id, options, nullptr); });
}

Error remove(const Snapshot& row, const RemoveOptions& options) {
  const Id id{row.config.name, row.config.vers};
  return error_at_boundary([&] { return remove_and_log(id, options, &row); });
}

}  // namespace ConfSave::snapshots
