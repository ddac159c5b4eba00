#include "snapshots/notes.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "places.h"
#include "snapshots/descriptor.h"

namespace ConfSave::snapshots {
namespace {

/// The version of the tables, as "pragma user_version" has it.
constexpr int64 kLayout = 1;

constexpr const char* kTables =
    "begin immediate; "
    "create table if not exists note (id integer primary key, saved integer not null, keybase integer not "
    "null, "
    "etc integer not null, comment text not null, author text not null, pinned integer not null); "
    "pragma user_version = 1; "
    "commit";

std::string notes_file() { return state_directory() + "/notes.db"; }

/// SQLite gives its own files the mode of the umask, so the file is made before.
Error make_file(const std::string& file) {
  const Descriptor made(::open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (made && fchmod(made.get(), S_IRUSR | S_IWUSR) == 0) return {};
  const Code code = errno == EACCES || errno == EPERM || errno == EROFS ? Code::denied : Code::failed;
  return {code, errno, file, std::strerror(errno)};
}

}  // namespace

Result<std::optional<Notes>> Notes::open(std::chrono::milliseconds wait) {
  Result<Database> database = Database::open(notes_file(), wait);
  if (!database) {
    if (database.error().number == ENOENT) return std::optional<Notes>();
    return database.error();
  }
  Notes notes(std::move(*database));
  const Result<int64> found = notes.layout();
  if (!found) return found.error();
  // The file is there before its tables.
  if (*found == 0) return std::optional<Notes>();
  return std::optional<Notes>(std::move(notes));
}

Result<Notes> Notes::open_to_write(std::chrono::milliseconds wait) {
  if (Error error = make_file(notes_file()); error.code != Code::ok) return error;
  Result<Database> database = Database::open(notes_file(), wait);
  if (!database) return database.error();
  Notes notes(std::move(*database));
  // By default SQLite does not sync the deletion of its journal, which a power cut could bring back.
  if (Error error = notes.database_.run("pragma synchronous=extra"); error.code != Code::ok) return error;
  if (Error error = notes.prepare_tables(); error.code != Code::ok) return error;
  return notes;
}

Result<int64> Notes::layout() {
  Result<Statement> statement = database_.prepare("pragma user_version");
  if (!statement) return statement.error();
  if (statement->step() != SQLITE_ROW) return database_.error();
  const int64 layout = statement->number(0);
  if (layout <= kLayout) return layout;
  return Error{Code::newer, 0, database_.file(), "a newer version of ConfSave wrote this file"};
}

Error Notes::prepare_tables() {
  const Result<int64> found = layout();
  if (!found) return found.error();
  return *found == kLayout ? check() : database_.run(kTables);
}

Error Notes::check() {
  Result<Statement> statement = database_.prepare("pragma quick_check(1)");
  if (!statement) return statement.error();
  if (statement->step() != SQLITE_ROW) return database_.error();
  const std::string result = statement->text(0);
  if (result == "ok") return {};
  return {Code::damaged, 0, database_.file(),
          "the file is damaged (" + result + "); without it only comments and pins are lost"};
}

Result<std::map<int64, Note>> Notes::read(const Snapshots& snapshots) {
  Result<Statement> statement =
      database_.prepare("select id, saved, keybase, etc, comment, author, pinned from note");
  if (!statement) return statement.error();
  std::map<int64, const Snapshot*> rows;
  for (const Snapshot& snapshot : snapshots) rows[snapshot.id] = &snapshot;
  std::map<int64, Note> notes;
  for (;;) {
    const int code = statement->step();
    if (code == SQLITE_DONE) return notes;
    if (code != SQLITE_ROW) return database_.error();
    const auto row = rows.find(statement->number(0));
    if (row == rows.end()) continue;
    const Snapshot& snapshot = *row->second;
    const bool belongs = statement->number(1) == snapshot.config.save_time &&
                         statement->number(2) == snapshot.keybase_size &&
                         statement->number(3) == snapshot.etc_size;
    if (belongs) notes[snapshot.id] = {statement->text(4), statement->text(5), statement->number(6) != 0};
  }
}

Error Notes::change(const Snapshot& snapshot, const std::function<void(Note&)>& change) {
  if (Error error = database_.run("begin immediate"); error.code != Code::ok) return error;
  Error error = read_and_replace(snapshot, change);
  if (error.code == Code::ok) return database_.run("commit");
  database_.run("rollback");
  return error;
}

Error Notes::read_and_replace(const Snapshot& snapshot, const std::function<void(Note&)>& change) {
  Result<std::map<int64, Note>> notes = read({snapshot});
  if (!notes) return notes.error();
  Note note = (*notes)[snapshot.id];
  change(note);
  return replace(snapshot, note);
}

Error Notes::replace(const Snapshot& snapshot, const Note& note) {
  Result<Statement> statement = database_.prepare(
      "insert or replace into note (id, saved, keybase, etc, comment, author, pinned) values "
      "(?,?,?,?,?,?,?)");
  if (!statement) return statement.error();
  statement->bind(snapshot.id)
      .bind(snapshot.config.save_time)
      .bind(snapshot.keybase_size)
      .bind(snapshot.etc_size)
      .bind(note.comment)
      .bind(note.author)
      .bind(note.pinned ? int64{1} : int64{0});
  return statement->step() == SQLITE_DONE ? Error{} : database_.error();
}

}  // namespace ConfSave::snapshots
