#include "snapshots/storage_writer.h"

#include <sys/stat.h>

#include <cerrno>
#include <limits>
#include <string_view>

#include "places.h"
#include "snapshots/own_file.h"
#include "snapshots/row_reader.h"
#include "snapshots/storage_reader.h"
#include "snapshots/system_error.h"
#include "storage/statements.h"

namespace ConfSave::snapshots {
namespace {

Error wrong(const std::string& file, const std::string& text) { return {Code::failed, 0, file, text}; }

}  // namespace

Result<StorageWriter> StorageWriter::open(const Deadline& deadline) {
  const std::string file = storage_file();
  if (Error error = make_unless_there(file); error.code != Code::ok) {
    if (error.number == ENOENT) error.code = Code::no_storage;
    return error;
  }
  Result<Database> database = Database::open(file, deadline.left());
  if (!database) return database.error();
  StorageWriter writer(std::move(*database), deadline);
  Error error = writer.database_.sync_deletions();
  if (error.code == Code::ok) error = writer.choose_layout();
  if (error.code != Code::ok) return error;
  return writer;
}

Error StorageWriter::choose_layout() {
  struct stat status = {};
  if (stat(database_.file().c_str(), &status) != 0) return system_error(database_.file());
  return status.st_size == 0 ? database_.run(sql::kChooseLayout) : Error{};
}

Result<Stored> StorageWriter::store(NewRow row, const MayReplace& may_replace,
                                    const std::function<Error(const Stored&)>& before_commit) {
  Stored stored;
  const auto change = [&] {
    Error failure = store_in_transaction(row, may_replace, stored);
    return failure.code == Code::ok ? before_commit(stored) : failure;
  };
  Error error = in_transaction(change, stored.snapshot);
  if (error.code == Code::ok) return stored;
  return error;
}

Error StorageWriter::in_transaction(const std::function<Error()>& change, const Snapshot& last) {
  database_.limit_wait(deadline_.left());
  bool is_changed = false;
  Error error = database_.in_transaction([&] {
    Error failure = make_table();
    if (failure.code == Code::ok) failure = change();
    database_.limit_wait(deadline_.left());
    is_changed = failure.code == Code::ok;
    return failure;
  });
  // Who waited in vain for readers has not written.
  const bool has_failed_late = is_changed && error.code != Code::ok && error.code != Code::busy;
  if (has_failed_late && may_have(last)) {
    error.aftermath = Aftermath::perhaps_done;
    error.text = "what was to be stored may be there all the same: " + error.text;
  }
  return error;
}

/// After a commit that has failed. True too if that cannot be found out.
bool StorageWriter::may_have(const Snapshot& row) {
  database_.limit_wait(deadline_.left_afterwards());
  const Result<bool> has_table = look_for_table(database_);
  if (!has_table || !*has_table) return !has_table;
  Result<Statement> found = database_.prepare(
      "select 1 from Config where id = ? and ifnull(save_time, 0) = ? and "
      "ifnull(length(keybase), 0) = ? and ifnull(length(etc), 0) = ?");
  if (!found) return true;
  found->bind(row.id).bind(row.config.save_time).bind(row.keybase_size).bind(row.etc_size);
  return found->step() != SQLITE_DONE;
}

Error StorageWriter::store_in_transaction(NewRow& row, const MayReplace& may_replace, Stored& stored) {
  const Id id{row.name, row.version};
  const Result<std::optional<int64>> old = find_old(id, may_replace);
  if (!old) return old.error();
  stored.replaced = old->has_value();
  stored.replaced_id = old->value_or(0);
  stored.snapshot.keybase_size = static_cast<int64>(row.archives.keybase.size());
  stored.snapshot.etc_size = static_cast<int64>(row.archives.etc.size());

  const Result<bool> is_aside = put(row, *old);
  if (!is_aside) return is_aside.error();
  const int64 rowid = sqlite3_last_insert_rowid(database_.get());
  Error error = read_back(row.archives, rowid);
  // To name a row SQLite takes as much memory as to insert it.
  row.archives = {};
  if (*is_aside && error.code == Code::ok) error = take_place(id, rowid);
  return error.code == Code::ok ? look_up(row, rowid, stored.snapshot) : error;
}

/// True if the old row is still there.
Result<bool> StorageWriter::put(const NewRow& row, std::optional<int64> old) {
  std::optional<int64> id;
  if (old) {
    Result<bool> is_aside = insert_aside(row);
    if (!is_aside || *is_aside) return is_aside;
    if (Error error = remove({row.name, row.version}); error.code != Code::ok) return error;
    const Result<std::optional<int64>> above = id_above(*old);
    if (!above) return above.error();
    id = *above;
  }
  Error error = insert(row, Name::text, id);
  return error.code == Code::ok ? Result<bool>(false) : Result<bool>(error);
}

Error StorageWriter::make_table() {
  const Result<bool> has_table = look_for_table(database_);
  if (!has_table) return has_table.error();
  return *has_table ? Error{} : database_.run(sql::create_table().c_str());
}

Result<std::optional<int64>> StorageWriter::find_old(const Id& id, const MayReplace& may_replace) {
  Result<Statement> old = database_.prepare(
      "select id, save_time, ifnull(length(keybase), 0), ifnull(length(etc), 0) from Config "
      "where name = ? and version = ?");
  if (!old) return old.error();
  const int code = old->bind(id.name).bind(id.version).step();
  if (code == SQLITE_DONE) return std::optional<int64>();
  if (code != SQLITE_ROW) return error();
  Snapshot row;
  row.id = old->number(0);
  row.config.save_time = old->number(1);
  row.keybase_size = old->number(2);
  row.etc_size = old->number(3);
  // Another one of its name may be pinned, and nobody has agreed to lose it.
  const int next = old->step();
  if (next == SQLITE_ROW) return several_of(id.name);
  if (next != SQLITE_DONE) return error();
  if (Error error = may_replace(row); error.code != Code::ok) return error;
  return std::optional<int64>(row.id);
}

Error StorageWriter::remove(const Id& id) {
  Result<Statement> removal = database_.prepare("delete from Config where name = ? and version = ?");
  if (!removal) return removal.error();
  return removal->bind(id.name).bind(id.version).step() == SQLITE_DONE ? Error{} : error();
}

Result<std::optional<int64>> StorageWriter::make_room(const Id& id, const MayReplace& may_replace) {
  Result<std::optional<int64>> old = find_old(id, may_replace);
  if (!old || !*old) return old;
  Error error = remove(id);
  return error.code == Code::ok ? old : Result<std::optional<int64>>(error);
}

Result<std::optional<int64>> StorageWriter::id_above(int64 old) {
  const char* type = nullptr;
  int is_key = 0;
  int is_automatic = 0;
  const int code = sqlite3_table_column_metadata(database_.get(), "main", "Config", "id", &type, nullptr,
                                                 nullptr, &is_key, &is_automatic);
  if (code != SQLITE_OK) return error();
  const bool is_used_again = is_key != 0 && is_automatic == 0 && sqlite3_stricmp(type, "integer") == 0 &&
                             old < std::numeric_limits<int64>::max();
  if (!is_used_again) return std::optional<int64>();
  Result<Statement> above = database_.prepare("select exists (select 1 from Config where id > ?)");
  if (!above) return above.error();
  if (above->bind(old).step() != SQLITE_ROW) return error();
  return above->number(0) != 0 ? std::optional<int64>() : std::optional<int64>(old + 1);
}

/// Pages that the old row frees before would be used for the new one, and what they held would have to be
/// written into the journal: as much as the row. So the old row goes last, in a file of the contract
/// library's layout. False if it has to go first: in another one, or if the table has a rule for names.
Result<bool> StorageWriter::insert_aside(const NewRow& row) {
  Result<Statement> layout = database_.prepare(
      "select auto_vacuum = 2 and encoding = 'UTF-8' from pragma_auto_vacuum, pragma_encoding");
  if (!layout) return layout.error();
  if (layout->step() != SQLITE_ROW) return error();
  if (layout->number(0) == 0) return false;
  Error error = insert(row, Name::blob, {});
  const bool is_refused = (error.number & 0xff) == SQLITE_CONSTRAINT;
  // A rule of the table can end the transaction.
  if (is_refused && sqlite3_get_autocommit(database_.get()) == 0) return false;
  return error.code == Code::ok ? Result<bool>(true) : Result<bool>(error);
}

/// The order of the columns is that of the contract library. The load time stays null. A name as a blob
/// equals no text, and takes as many bytes in the row.
Error StorageWriter::insert(const NewRow& row, Name as, std::optional<int64> id) {
  Result<Statement> statement = database_.prepare(
      id ? "insert into Config (name, keybase, etc, version, save_time, type, id) values (?,?,?,?,?,?,?)"
         : "insert into Config (name, keybase, etc, version, save_time, type) values (?,?,?,?,?,?)");
  if (!statement) return statement.error();
  const std::vector<char> name(row.name.begin(), row.name.end());
  as == Name::blob ? statement->bind(name) : statement->bind(row.name);
  statement->bind(row.archives.keybase).bind(row.archives.etc);
  statement->bind(row.version).bind(row.save_time).bind(int64{row.type});
  if (id) statement->bind(*id);
  return statement->step() == SQLITE_DONE ? Error{} : error();
}

Error StorageWriter::read_back(const Packed& archives, int64 rowid) {
  Error error = compare_archive("keybase", rowid, archives.keybase);
  return error.code == Code::ok ? compare_archive("etc", rowid, archives.etc) : error;
}

/// A row that keeps its size is written where it is: only the page with its name changes.
Error StorageWriter::take_place(const Id& id, int64 rowid) {
  Error error = database_.run("pragma secure_delete=fast");
  if (error.code == Code::ok) error = remove(id);
  if (error.code != Code::ok) return error;
  Result<Statement> statement = database_.prepare("update Config set name = ? where rowid = ?");
  if (!statement) return statement.error();
  return statement->bind(id.name).bind(rowid).step() == SQLITE_DONE ? Error{} : this->error();
}

/// The sizes of the archives are in `snapshot`.
Error StorageWriter::look_up(const NewRow& row, int64 rowid, Snapshot& snapshot) {
  Result<Statement> found = database_.prepare(
      "select id, name, version, type, save_time, load_time, ifnull(length(keybase), 0), "
      "ifnull(length(etc), 0) from Config where rowid = ?");
  if (!found) return found.error();
  if (found->bind(rowid).step() != SQLITE_ROW) return error();
  // Before the value is read as a text, which makes it one.
  const bool is_text = found->type(1) == SQLITE_TEXT;
  snapshot.id = found->number(0);
  snapshot.config.name = found->text(1);
  snapshot.config.vers = found->number(2);
  snapshot.config.type = static_cast<conftype>(found->number(3));
  snapshot.config.save_time = found->number(4);
  const bool same = is_text && snapshot.config.name == row.name && found->type(2) == SQLITE_INTEGER &&
                    snapshot.config.vers == row.version && found->type(3) == SQLITE_INTEGER &&
                    snapshot.config.type == row.type && found->type(4) == SQLITE_INTEGER &&
                    snapshot.config.save_time == row.save_time && found->type(5) == SQLITE_NULL &&
                    found->number(6) == snapshot.keybase_size && found->number(7) == snapshot.etc_size;
  return same ? Error{} : wrong(database_.file(), "the row is not stored as it was written");
}

Error StorageWriter::compare_archive(const char* column, int64 rowid, const std::vector<char>& archive) {
  if (archive.empty()) return {};
  Result<std::unique_ptr<BlobSource>> blob = BlobSource::open(database_, column, rowid);
  if (!blob) return blob.error();
  std::string_view left(archive.data(), archive.size());
  for (;;) {
    const Result<std::string_view> piece = (*blob)->next();
    if (!piece) return piece.error();
    if (piece->empty()) break;
    if (left.substr(0, piece->size()) != *piece) {
      return wrong(database_.file(), "an archive does not read back as it was written");
    }
    left.remove_prefix(piece->size());
  }
  return left.empty() ? Error{} : wrong(database_.file(), "an archive is stored only in part");
}

Error StorageWriter::error() const {
  Error error = database_.error();
  const int code = error.number & 0xff;
  if (code == SQLITE_CONSTRAINT || code == SQLITE_MISMATCH) error.code = Code::no_storage;
  return error;
}

}  // namespace ConfSave::snapshots
