#include "snapshots/storage_writer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string_view>

#include "places.h"
#include "snapshots/descriptor.h"
#include "snapshots/storage_reader.h"
#include "snapshots/system_error.h"
#include "storage/statements.h"

namespace ConfSave::snapshots {
namespace {

/// Never opens a file that is there: closing it would free the locks that SQLite has on it elsewhere in
/// this process.
Error make_file(const std::string& path) {
  constexpr mode_t kMode = S_IRUSR | S_IWUSR;
  const Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  if (file) return fchmod(file.get(), kMode) == 0 ? Error{} : system_error(path);
  if (errno == EEXIST) return {};
  Error error = system_error(path);
  if (error.number == ENOENT) error.code = Code::no_storage;
  return error;
}

Error wrong(const std::string& file, const std::string& text) { return {Code::failed, 0, file, text}; }

}  // namespace

Result<StorageWriter> StorageWriter::open(const Deadline& deadline) {
  const std::string file = storage_file();
  if (Error error = make_file(file); error.code != Code::ok) return error;
  Result<Database> database = Database::open(file, deadline.left());
  if (!database) return database.error();
  StorageWriter writer(std::move(*database), deadline);
  // By default SQLite does not sync the deletion of its journal, which a power cut could bring back.
  Error error = writer.database_.run("pragma synchronous=extra");
  if (error.code == Code::ok) error = writer.choose_layout();
  if (error.code != Code::ok) return error;
  return writer;
}

Error StorageWriter::choose_layout() {
  struct stat status = {};
  if (stat(database_.file().c_str(), &status) != 0) return system_error(database_.file());
  return status.st_size == 0 ? database_.run("pragma auto_vacuum=incremental") : Error{};
}

Result<Stored> StorageWriter::store(const NewRow& row, bool overwrite) {
  Stored stored;
  Error error = in_transaction([&] { return store_in_transaction(row, overwrite, stored); });
  if (error.code == Code::ok) return stored;
  return error;
}

Error StorageWriter::in_transaction(const std::function<Error()>& change) {
  database_.limit_wait(deadline_.left());
  if (Error error = database_.run("begin immediate"); error.code != Code::ok) return error;
  Error error = make_table();
  if (error.code == Code::ok) error = change();
  database_.limit_wait(deadline_.left());
  if (error.code == Code::ok) error = database_.run("commit");
  if (error.code != Code::ok) database_.run("rollback");
  return error;
}

Error StorageWriter::store_in_transaction(const NewRow& row, bool overwrite, Stored& stored) {
  const Result<std::optional<int64>> replaced = make_room({row.name, row.version}, overwrite);
  if (!replaced) return replaced.error();
  stored.replaced = replaced->has_value();
  stored.replaced_id = replaced->value_or(0);
  Error error = insert(row);
  if (error.code == Code::ok) error = look_up(row, stored.snapshot);
  return error;
}

Error StorageWriter::make_table() {
  const Result<bool> has_table = look_for_table(database_);
  if (!has_table) return has_table.error();
  return *has_table ? Error{} : database_.run(sql::create_table().c_str());
}

Result<std::optional<int64>> StorageWriter::make_room(const Id& id, bool overwrite) {
  Result<Statement> old = database_.prepare("select id from Config where name = ? and version = ?");
  if (!old) return old.error();
  const int code = old->bind(id.name).bind(id.version).step();
  if (code == SQLITE_DONE) return std::optional<int64>();
  if (code != SQLITE_ROW) return error();
  if (!overwrite) {
    return Error{Code::taken, 0, "", "there is a snapshot '" + id.name + "' of this version"};
  }
  const int64 replaced = old->number(0);
  Result<Statement> removal = database_.prepare("delete from Config where name = ? and version = ?");
  if (!removal) return removal.error();
  if (removal->bind(id.name).bind(id.version).step() != SQLITE_DONE) return error();
  return std::optional<int64>(replaced);
}

/// The order of the columns is that of the contract library. The load time stays null.
Error StorageWriter::insert(const NewRow& row) {
  Result<Statement> statement = database_.prepare(
      "insert into Config (name, keybase, etc, version, save_time, type) values (?,?,?,?,?,?)");
  if (!statement) return statement.error();
  statement->bind(row.name).bind(row.archives.keybase).bind(row.archives.etc);
  statement->bind(row.version).bind(row.save_time).bind(int64{row.type});
  return statement->step() == SQLITE_DONE ? Error{} : error();
}

Error StorageWriter::look_up(const NewRow& row, Snapshot& snapshot) {
  const int64 rowid = sqlite3_last_insert_rowid(database_.get());
  Result<Statement> found = database_.prepare(
      "select id, name, version, type, save_time, load_time, ifnull(length(keybase), 0), "
      "ifnull(length(etc), 0) from Config where rowid = ?");
  if (!found) return found.error();
  if (found->bind(rowid).step() != SQLITE_ROW) return error();
  snapshot.id = found->number(0);
  snapshot.config.name = found->text(1);
  snapshot.config.vers = found->number(2);
  snapshot.config.type = static_cast<conftype>(found->number(3));
  snapshot.config.save_time = found->number(4);
  snapshot.keybase_size = found->number(6);
  snapshot.etc_size = found->number(7);
  const bool same = snapshot.config.name == row.name && found->type(2) == SQLITE_INTEGER &&
                    snapshot.config.vers == row.version && found->type(3) == SQLITE_INTEGER &&
                    snapshot.config.type == row.type && found->type(4) == SQLITE_INTEGER &&
                    snapshot.config.save_time == row.save_time && found->type(5) == SQLITE_NULL;
  if (!same) return wrong(database_.file(), "the row is not stored as it was written");
  Error error = compare_archive("keybase", rowid, row.archives.keybase);
  return error.code == Code::ok ? compare_archive("etc", rowid, row.archives.etc) : error;
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
