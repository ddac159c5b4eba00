#include "snapshots/journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "places.h"
#include "snapshots/access.h"
#include "snapshots/own_file.h"
#include "snapshots/system_error.h"

namespace ConfSave::snapshots {
namespace {

/// The version of the tables, as "pragma user_version" has it.
constexpr int64 kLayout = 1;

constexpr const char* kTables =
    "create table restore (state integer not null, snapshot integer not null, name text not null, "
    "version integer not null, type integer not null, saved integer not null, keybase integer not null, "
    "etc integer not null, loaded integer not null, author text not null, boot text not null, "
    "deadline integer not null, ending integer not null);"
    "create table ended (name text not null, ending integer not null, time integer not null);"
    "create table root (number integer primary key, path text not null, inode integer not null, "
    "staging text not null);"
    "create table step (number integer primary key, what integer not null, root integer not null, "
    "path text not null, old_inode integer not null, old_size integer not null, "
    "old_time integer not null, old_kind integer not null, new_inode integer not null, "
    "new_size integer not null, new_time integer not null, new_kind integer not null, "
    "old_mode integer not null, old_uid integer not null, old_gid integer not null, "
    "new_mode integer not null, new_uid integer not null, new_gid integer not null, "
    "old_access blob not null, time integer not null);"
    "pragma user_version = 1;";

std::string journal_file() { return state_directory() + "/restore.db"; }

Error not_understood(const std::string& why) {
  return {Code::needs_attention, 0, journal_file(),
          why +
              "; if no directory .confsave-restore-* is left where configurations are restored, delete "
              "the file, else keep both and ask for help"};
}

/// A journal that cannot be opened may be whole: the message must not say that it can be deleted.
Error not_opened(const Error& error) {
  if (error.number == 0 && error.path != journal_file()) {
    return {Code::needs_attention, 0, error.path,
            error.text + "; move it away, then run 'confsave recover'"};
  }
  if (error.number == 0) return not_understood(error.text);
  if (!may_access(journal_file(), R_OK)) return system_error(journal_file());
  return {error.code == Code::no_storage ? Code::failed : error.code, error.number, error.path, error.text};
}

template <class Enum>
bool is_one_of(Enum last, int64 number) {
  return number >= 0 && number <= static_cast<int64>(last);
}

Identity read_identity(const Statement& row, int column) {
  Identity identity;
  identity.inode = static_cast<std::uint64_t>(row.number(column));
  identity.size = row.number(column + 1);
  identity.modified = row.number(column + 2);
  identity.kind = static_cast<std::uint32_t>(row.number(column + 3));
  return identity;
}

Attributes read_attributes(const Statement& row, int column) {
  return {static_cast<std::uint32_t>(row.number(column)),
          static_cast<std::uint32_t>(row.number(column + 1)),
          static_cast<std::uint32_t>(row.number(column + 2))};
}

void bind(Statement& statement, const Identity& identity) {
  statement.bind(static_cast<int64>(identity.inode)).bind(identity.size).bind(identity.modified);
  statement.bind(int64{identity.kind});
}

void bind(Statement& statement, const Attributes& attributes) {
  statement.bind(int64{attributes.mode}).bind(int64{attributes.uid}).bind(int64{attributes.gid});
}

}  // namespace

Result<std::optional<Journal>> Journal::open(std::chrono::milliseconds wait) {
  Result<Database> database = Database::open(journal_file(), wait);
  if (!database) {
    if (database.error().number == ENOENT) return std::optional<Journal>();
    return not_opened(database.error());
  }
  return std::optional<Journal>(Journal(std::move(*database)));
}

Result<Journal> Journal::open_to_write(std::chrono::milliseconds wait) {
  if (Error error = make_own_file(journal_file()); error.code != Code::ok) return error;
  Result<Database> database = Database::open(journal_file(), wait);
  if (!database) return not_opened(database.error());
  Journal journal(std::move(*database));
  Error error = journal.database_.sync_deletions();
  // With SQLite's journal kept, the change of a state after the exchange needs no room on the disk.
  if (error.code == Code::ok) error = journal.database_.run("pragma journal_mode=persist");
  if (error.code != Code::ok) return explained(error);
  error = journal.in_transaction([&journal] { return journal.make_tables(); });
  if (error.code != Code::ok) return error;
  return journal;
}

Error Journal::make_tables() {
  Result<Statement> layout = database_.prepare("pragma user_version");
  if (!layout || layout->step() != SQLITE_ROW) return failure();
  const int64 found = layout->number(0);
  if (found > kLayout) return not_understood("a newer version of ConfSave wrote this file");
  layout->reset();
  return found == kLayout ? Error{} : database_.run(kTables);
}

/// What SQLite cannot read, a person has to look at.
Error Journal::explained(const Error& error) {
  if ((error.number & 0xff) == SQLITE_CANTOPEN) return not_opened(error);
  return error.code == Code::no_storage ? not_understood(error.text) : error;
}

Error Journal::in_transaction(const std::function<Error()>& change) {
  Error failure;
  Error error = database_.in_transaction([&] { return failure = change(); });
  return failure.code == Code::ok ? explained(error) : error;
}

Error Journal::decide(const std::function<Error()>& change) {
  database_.limit_wait(kGrace);
  return in_transaction(change);
}

Result<Record> Journal::read_restore(const Statement& row) {
  const int64 state = row.number(0);
  const int64 ending = row.number(12);
  if (!is_one_of(State::reverting, state)) return not_understood("the state is unknown");
  if (!is_one_of(Ending::restarted, ending)) return not_understood("the ending is unknown");
  Record record;
  record.state = static_cast<State>(state);
  record.snapshot.id = row.number(1);
  record.snapshot.config.name = row.text(2);
  record.snapshot.config.vers = row.number(3);
  record.snapshot.config.type = static_cast<conftype>(row.number(4));
  record.snapshot.config.save_time = row.number(5);
  record.snapshot.keybase_size = row.number(6);
  record.snapshot.etc_size = row.number(7);
  record.load_time = row.number(8);
  record.author = row.text(9);
  record.window = {row.text(10), row.number(11)};
  record.ending = static_cast<Ending>(ending);
  return record;
}

Result<std::optional<Record>> Journal::read() {
  Result<Statement> layout = database_.prepare("pragma user_version");
  if (!layout || layout->step() != SQLITE_ROW) return failure();
  const int64 found = layout->number(0);
  // The file is there before its tables.
  if (found == 0) return std::optional<Record>();
  if (found != kLayout) return not_understood("a newer version of ConfSave wrote this file");
  layout->reset();
  if (database_.run("begin").code != Code::ok) return failure();
  Result<std::optional<Record>> record = read_rows();
  database_.run("rollback");
  return record;
}

Result<std::optional<Record>> Journal::read_rows() {
  Result<Statement> row = database_.prepare(
      "select state, snapshot, name, version, type, saved, keybase, etc, loaded, author, boot, deadline, "
      "ending from restore");
  if (!row) return failure();
  const int code = row->step();
  if (code == SQLITE_DONE) return std::optional<Record>();
  if (code != SQLITE_ROW) return failure();
  Result<Record> record = read_restore(*row);
  if (!record) return record.error();
  Error error = read_roots(*record);
  if (error.code == Code::ok) error = read_steps(*record);
  if (error.code != Code::ok) return error;
  return std::optional<Record>(std::move(*record));
}

Error Journal::read_roots(Record& record) {
  Result<Statement> rows = database_.prepare("select path, inode, staging from root order by number");
  if (!rows) return failure();
  int code = rows->step();
  for (; code == SQLITE_ROW; code = rows->step()) {
    record.roots.push_back({rows->text(0), static_cast<std::uint64_t>(rows->number(1)), rows->text(2)});
  }
  return code == SQLITE_DONE ? Error{} : failure();
}

Error Journal::read_steps(Record& record) {
  Result<Statement> rows = database_.prepare(
      "select what, root, path, old_inode, old_size, old_time, old_kind, new_inode, new_size, new_time, "
      "new_kind, old_mode, old_uid, old_gid, new_mode, new_uid, new_gid, old_access, time from step order "
      "by number");
  if (!rows) return failure();
  int code = rows->step();
  for (; code == SQLITE_ROW; code = rows->step()) {
    Step step;
    const int64 what = rows->number(0);
    if (!is_one_of(Step::What::attributes, what)) return not_understood("a step is unknown");
    step.what = static_cast<Step::What>(what);
    step.root = static_cast<std::size_t>(rows->number(1));
    step.path = rows->text(2);
    step.before = read_identity(*rows, 3);
    step.after = read_identity(*rows, 7);
    step.old = read_attributes(*rows, 11);
    step.fresh = read_attributes(*rows, 14);
    step.old_access = rows->text(17);
    step.time = rows->number(18);
    if (step.root >= record.roots.size()) return not_understood("a step has no directory");
    record.steps.push_back(std::move(step));
  }
  return code == SQLITE_DONE ? Error{} : failure();
}

/// No other restore stages in a directory of this name.
Error Journal::check_is_of(const Record& record) {
  const Result<std::optional<Record>> found = read();
  if (!found) return found.error();
  const bool is_it = *found && (*found)->roots.size() == record.roots.size() &&
                     (*found)->roots.front().staging == record.roots.front().staging;
  if (is_it) return {};
  return {
      Code::not_pending, 0, journal_file(),
      "another process has replaced the record of this restore: look which files are live; the old ones "
      "are in directories '.confsave-restore-*' beside them"};
}

Error Journal::begin(const Record& record) {
  return in_transaction([&]() -> Error {
    Result<Statement> row = database_.prepare(
        "insert into restore (state, snapshot, name, version, type, saved, keybase, etc, loaded, author, "
        "boot, deadline, ending) values (?,?,?,?,?,?,?,?,0,?,'',0,0)");
    if (!row) return failure();
    const Snapshot& snapshot = record.snapshot;
    row->bind(static_cast<int64>(State::staging)).bind(snapshot.id).bind(snapshot.config.name);
    row->bind(snapshot.config.vers).bind(int64{snapshot.config.type}).bind(snapshot.config.save_time);
    row->bind(snapshot.keybase_size).bind(snapshot.etc_size).bind(record.author);
    if (!row->run()) return failure();
    Result<Statement> roots = database_.prepare("insert into root (path, inode, staging) values (?,?,?)");
    if (!roots) return failure();
    for (const Root& root : record.roots) {
      roots->bind(root.path).bind(static_cast<int64>(root.inode)).bind(root.staging);
      if (!roots->run()) return failure();
    }
    return {};
  });
}

Error Journal::write_step(Statement& statement, const Step& step) {
  statement.bind(static_cast<int64>(step.what)).bind(static_cast<int64>(step.root)).bind(step.path);
  bind(statement, step.before);
  bind(statement, step.after);
  bind(statement, step.old);
  bind(statement, step.fresh);
  statement.bind(step.old_access).bind(step.time);
  return statement.run() ? Error{} : failure();
}

Error Journal::prepare(const Record& record) {
  return in_transaction([&]() -> Error {
    Result<Statement> statement = database_.prepare(
        "insert into step (what, root, path, old_inode, old_size, old_time, old_kind, new_inode, "
        "new_size, new_time, new_kind, old_mode, old_uid, old_gid, new_mode, new_uid, new_gid, "
        "old_access, time) values (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
    if (!statement) return failure();
    for (const Step& step : record.steps) {
      if (Error error = write_step(*statement, step); error.code != Code::ok) return error;
    }
    Result<Statement> row =
        database_.prepare("update restore set state = ?, loaded = ?, boot = ?, deadline = ?");
    if (!row) return failure();
    row->bind(static_cast<int64>(State::prepared)).bind(record.load_time);
    row->bind(record.window.boot).bind(record.window.deadline);
    return row->run() ? Error{} : failure();
  });
}

Error Journal::set_state(State state, Ending ending) {
  return decide([&]() -> Error {
    Result<Statement> row = database_.prepare("update restore set state = ?, ending = ?");
    if (!row) return failure();
    if (!row->bind(static_cast<int64>(state)).bind(static_cast<int64>(ending)).run()) return failure();
    // Somebody else has taken it back.
    return sqlite3_changes(database_.get()) == 1 ? Error{} : not_understood("the record is gone");
  });
}

Error Journal::set_pending(const Window& window) {
  return decide([&]() -> Error {
    Result<Statement> row = database_.prepare("update restore set state = ?, boot = ?, deadline = ?");
    if (!row) return failure();
    row->bind(static_cast<int64>(State::pending)).bind(window.boot).bind(window.deadline);
    if (!row->run()) return failure();
    return sqlite3_changes(database_.get()) == 1 ? Error{} : not_understood("the record is gone");
  });
}

Error Journal::replace_after(const std::map<std::size_t, Identity>& identities) {
  return decide([&]() -> Error {
    Result<Statement> row = database_.prepare(
        "update step set new_inode = ?, new_size = ?, new_time = ?, new_kind = ? where number = ?");
    if (!row) return failure();
    for (const auto& [number, identity] : identities) {
      bind(*row, identity);
      // SQLite counts from 1.
      row->bind(static_cast<int64>(number) + 1);
      if (!row->run()) return failure();
    }
    return {};
  });
}

Error Journal::clear() {
  return decide([&]() -> Error {
    return explained(database_.run(
        "delete from ended where exists (select 1 from restore where ending <> 0);"
        "insert into ended select name, ending, cast(strftime('%s', 'now') as integer) from restore "
        "where ending <> 0;"
        "delete from step; delete from root; delete from restore;"));
  });
}

Result<std::optional<Ended>> Journal::last_ended() {
  Result<Statement> row = database_.prepare("select name, ending, time from ended");
  if (!row) return failure();
  const int code = row->step();
  if (code == SQLITE_DONE) return std::optional<Ended>();
  if (code != SQLITE_ROW) return failure();
  return std::optional<Ended>(Ended{row->text(0), static_cast<Ending>(row->number(1)), row->number(2)});
}

}  // namespace ConfSave::snapshots
