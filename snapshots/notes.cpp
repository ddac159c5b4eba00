#include "snapshots/notes.h"

#include <cerrno>

#include "places.h"
#include "snapshots/access.h"
#include "snapshots/own_file.h"

namespace ConfSave::snapshots {
namespace {

/// The version of the tables, as "pragma user_version" has it.
constexpr int64 kLayout = 2;
/// The first one with parents of members.
constexpr int64 kParentLayout = 2;

/// A manifest may have very many members, and a save should not take much longer.
constexpr std::size_t kMostSwept = 4;

constexpr const char* kNoteTable =
    "create table note (id integer primary key, saved integer not null, keybase integer not null, "
    "etc integer not null, comment text not null, author text not null, pinned integer not null); ";

std::string notes_file() { return state_directory() + "/notes.db"; }

/// Whether what begins with the columns id, saved, keybase and etc is about `snapshot`.
bool belongs(const Statement& row, const Snapshot& snapshot) {
  return row.number(0) == snapshot.id && row.number(1) == snapshot.config.save_time &&
         row.number(2) == snapshot.keybase_size && row.number(3) == snapshot.etc_size;
}

std::map<int64, const Snapshot*> by_id(const Snapshots& snapshots) {
  std::map<int64, const Snapshot*> rows;
  for (const Snapshot& snapshot : snapshots) rows[snapshot.id] = &snapshot;
  return rows;
}

}  // namespace

Result<std::optional<Notes>> Notes::open(std::chrono::milliseconds wait) {
  Result<Database> database = Database::open(notes_file(), wait);
  if (!database) {
    if (database.error().number != ENOENT) return database.error();
    if (!exists(notes_file())) return std::optional<Notes>();
    return Error{Code::no_storage, ENOENT, notes_file(),
                 "this link leads to no file: its file system may not be mounted"};
  }
  Result<std::optional<Notes>> notes = open_in(std::move(*database));
  if (notes && *notes) (*notes)->configuration_ = config_directory();
  return notes;
}

Result<std::optional<Notes>> Notes::open_in(Database database) {
  Notes notes(std::move(database));
  const Result<int64> found = notes.layout();
  if (!found) return found.error();
  // The file is there before its tables.
  if (*found == 0) return std::optional<Notes>();
  notes.has_parents_ = *found >= kParentLayout;
  return std::optional<Notes>(std::move(notes));
}

Result<Notes> Notes::make_in(Database database) {
  Notes notes(std::move(database));
  Error error = notes.database_.in_transaction([&notes] { return notes.make_tables(); });
  if (error.code != Code::ok) return error;
  return notes;
}

std::set<std::string> Notes::schema() {
  const std::string texts = std::string(kManifestTables) + kNoteTable + kParentTable;
  const std::string end = "; ";
  std::set<std::string> result;
  for (std::size_t start = 0, stop = 0; (stop = texts.find(end, start)) != std::string::npos;
       start = stop + end.size()) {
    const std::string text = texts.substr(start, stop - start);
    result.insert("CREATE TABLE" + text.substr(std::string("create table").size()));
  }
  return result;
}

Result<Notes> Notes::open_to_write(std::chrono::milliseconds wait) {
  if (Error error = make_own_file(notes_file()); error.code != Code::ok) return error;
  Result<Database> database = Database::open(notes_file(), wait);
  if (!database) return database.error();
  Notes notes(std::move(*database));
  notes.configuration_ = config_directory();
  if (Error error = notes.sync_deletions(); error.code != Code::ok) return error;
  if (Error error = notes.prepare_tables(); error.code != Code::ok) return error;
  return notes;
}

Error Notes::sync_deletions() { return database_.sync_deletions().code == Code::ok ? Error{} : failure(); }

Result<int64> Notes::layout() {
  Result<Statement> statement = database_.prepare("pragma user_version");
  if (!statement || statement->step() != SQLITE_ROW) return failure();
  const int64 layout = statement->number(0);
  if (layout <= kLayout) return layout;
  return Error{Code::newer, 0, database_.file(), "a newer version of ConfSave wrote this file"};
}

Error Notes::prepare_tables() {
  const Result<int64> found = layout();
  if (!found) return found.error();
  if (*found != 0) {
    if (Error error = check(); error.code != Code::ok) return error;
  }
  return *found == kLayout ? Error{} : database_.in_transaction([this] { return make_tables(); });
}

/// Another process may have made them by now.
Error Notes::make_tables() {
  const Result<int64> found = layout();
  if (!found) return found.error();
  std::string text;
  if (*found == 0) text = std::string(kManifestTables) + kNoteTable;
  if (*found < kParentLayout) text += kParentTable;
  text += "pragma user_version = " + std::to_string(kLayout);
  return *found == kLayout ? Error{} : database_.run(text.c_str());
}

Error Notes::damaged(int number, const std::string& how) const {
  return {Code::damaged, number, database_.file(),
          "the file is damaged (" + how + "); without it only comments, pins and manifests are lost"};
}

Error Notes::failure() const {
  Error error = database_.error();
  const bool is_damaged = (error.number & 0xff) == SQLITE_CORRUPT;
  return is_damaged ? damaged(error.number, error.text) : error;
}

Error Notes::check() {
  Result<Statement> statement = database_.prepare("pragma quick_check(1)");
  if (!statement || statement->step() != SQLITE_ROW) return failure();
  const std::string result = statement->text(0);
  return result == "ok" ? Error{} : damaged(0, result);
}

Result<std::map<int64, Note>> Notes::read(const Snapshots& snapshots) {
  const std::map<int64, const Snapshot*> rows = by_id(snapshots);
  std::map<int64, Note> notes;
  if (rows.empty()) return notes;
  Result<Statement> statement = database_.prepare(
      "select id, saved, keybase, etc, comment, author, pinned from note where id between ? and ?");
  if (!statement) return statement.error();
  statement->bind(rows.begin()->first).bind(rows.rbegin()->first);
  for (;;) {
    const int code = statement->step();
    if (code == SQLITE_DONE) return notes;
    if (code != SQLITE_ROW) return database_.error();
    const auto row = rows.find(statement->number(0));
    if (row == rows.end()) continue;
    if (!belongs(*statement, *row->second)) continue;
    notes[row->first] = {statement->text(4), statement->text(5), statement->number(6) != 0};
  }
}

Error Notes::look() {
  Result<Statement> statement = database_.prepare("select sum(pinned) from note");
  if (!statement) return statement.error();
  return statement->step() == SQLITE_ROW ? Error{} : database_.error();
}

Error Notes::write(const std::vector<NewNote>& notes) {
  return database_.in_transaction([&]() -> Error {
    for (const NewNote& note : notes) {
      if (Error error = replace(note.snapshot, note.note); error.code != Code::ok) return error;
    }
    return {};
  });
}

Error Notes::change(const Snapshot& snapshot, const std::function<void(Note&)>& change) {
  return database_.in_transaction([&] { return read_and_replace(snapshot, change); });
}

Error Notes::replace_manifest(const Snapshot& snapshot, const Note& note, const Manifest& manifest,
                              int64 replaced) {
  return database_.in_transaction([&] {
    Error error = replaced != 0 ? remove(replaced) : Error{};
    if (error.code == Code::ok) error = replace(snapshot, note);
    return error.code == Code::ok ? write_manifest(database_, snapshot, manifest) : error;
  });
}

Result<std::optional<Manifest>> Notes::manifest(const Snapshot& snapshot) {
  Result<std::optional<ManifestReader>> reader = open_manifest(snapshot);
  if (!reader) return reader.error();
  if (!*reader) return std::optional<Manifest>();
  Result<Tree> tree = (*reader)->tree();
  if (!tree) return tree.error();
  Result<std::vector<std::string>> missing = (*reader)->missing();
  if (!missing) return missing.error();
  Result<Parents> parents = has_parents_ ? (*reader)->parents() : Parents();
  if (!parents) return parents.error();
  return std::optional<Manifest>({std::move(*tree), std::move(*missing), std::move(*parents)});
}

Result<std::optional<Tree>> Notes::tree(const Snapshot& snapshot) {
  Result<std::optional<ManifestReader>> reader = open_manifest(snapshot);
  if (!reader) return reader.error();
  if (!*reader) return std::optional<Tree>();
  Result<Tree> tree = (*reader)->tree();
  if (!tree) return tree.error();
  return std::optional<Tree>(std::move(*tree));
}

Result<Parents> Notes::parents(const Snapshot& snapshot) {
  if (!has_parents_) return Parents();
  Result<std::optional<ManifestReader>> reader = open_manifest(snapshot);
  if (!reader) return reader.error();
  return *reader ? (*reader)->parents() : Parents();
}

Result<std::optional<ManifestReader>> Notes::open_manifest(const Snapshot& snapshot) {
  const bool has_begun = sqlite3_get_autocommit(database_.get()) == 0;
  const Error error = has_begun ? Error{} : database_.run("begin");
  if (error.code != Code::ok) return error;
  return ManifestReader::open(database_, snapshot, configuration_);
}

Error Notes::forget(int64 id) {
  if (Error error = sync_deletions(); error.code != Code::ok) return error;
  return database_.in_transaction([&] {
    const Error error = make_tables();
    return error.code == Code::ok ? remove(id) : error;
  });
}

Error Notes::sweep(const Snapshots& rows) {
  const Result<std::vector<int64>> strangers = find_strangers(rows);
  if (!strangers) return strangers.error();
  if (strangers->empty()) return {};
  return database_.in_transaction([&]() -> Error {
    for (const int64 id : *strangers) {
      if (Error error = delete_manifest(database_, id); error.code != Code::ok) return error;
    }
    return {};
  });
}

Result<std::vector<int64>> Notes::find_strangers(const Snapshots& snapshots) {
  const std::map<int64, const Snapshot*> rows = by_id(snapshots);
  std::vector<int64> strangers;
  Result<Statement> statement = database_.prepare("select id, saved, keybase, etc from manifest");
  if (!statement) return statement.error();
  while (strangers.size() < kMostSwept) {
    const int code = statement->step();
    if (code == SQLITE_DONE) break;
    if (code != SQLITE_ROW) return database_.error();
    const auto row = rows.find(statement->number(0));
    const bool is_known = row != rows.end() && belongs(*statement, *row->second);
    if (!is_known) strangers.push_back(statement->number(0));
  }
  return strangers;
}

Error Notes::remove(int64 id) {
  Result<Statement> statement = database_.prepare("delete from note where id = ?");
  if (!statement) return statement.error();
  return statement->bind(id).run() ? delete_manifest(database_, id) : database_.error();
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

Error look_at_notes(const Deadline& deadline) {
  Result<std::optional<Notes>> notes = Notes::open(deadline.left());
  if (!notes) return notes.error();
  return *notes ? (*notes)->look() : Error{};
}

Result<bool> is_pinned(const Snapshot& row, const Deadline& deadline) {
  Result<std::optional<Notes>> notes = Notes::open(deadline.left());
  if (!notes) return notes.error();
  if (!*notes) return false;
  const Result<std::map<int64, Note>> found = (*notes)->read({row});
  if (!found) return found.error();
  const auto note = found->find(row.id);
  return note != found->end() && note->second.pinned;
}

Result<std::optional<Tree>> find_tree(const Snapshot& snapshot, const Deadline& deadline) {
  Result<std::optional<Notes>> notes = Notes::open(deadline.left());
  if (!notes) return notes.error();
  return *notes ? (*notes)->tree(snapshot) : std::optional<Tree>();
}

Result<Parents> find_parents(const Snapshot& snapshot, const Deadline& deadline) {
  Result<std::optional<Notes>> notes = Notes::open(deadline.left());
  if (!notes) return notes.error();
  return *notes ? (*notes)->parents(snapshot) : Parents();
}

}  // namespace ConfSave::snapshots
