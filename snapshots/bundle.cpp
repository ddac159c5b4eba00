#include "snapshots/bundle.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <set>

#include "places.h"
#include "snapshots/arguments.h"
#include "snapshots/descriptor.h"
#include "snapshots/own_descriptors.h"
#include "snapshots/own_file.h"
#include "snapshots/system_error.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {

const char* const kOriginTable = "create table origin (configuration text not null)";

namespace {

/// "pragma table_xinfo" of a table that the library makes: name, type, part of the primary key.
constexpr const char* kColumns =
    "id integer 1, name varchar(80) 0, version integer 0, keybase blob 0, etc blob 0, type integer 0, "
    "save_time timestamp 0, load_time timestamp 0";

/// SQLite opens a FIFO and waits, and reading a file in WAL mode takes files beside it.
Error check_file(const std::string& file) {
  struct stat status = {};
  if (stat(file.c_str(), &status) != 0) return system_error(file);
  if (!S_ISREG(status.st_mode)) return {Code::failed, 0, file, "this is not a regular file"};
  // Closing a file that SQLite has open, too, would release the locks of this process.
  if (is_own_file(file)) return {Code::bad_argument, 0, file, "confsave uses this file itself"};
  if (status.st_size == 0) return {Code::damaged, 0, file, "the file is empty"};
  char header[20] = {};
  Error error;
  OwnDescriptors().run([&] {
    const Descriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    const bool is_read = opened && pread(opened.get(), header, sizeof header, 0) >= 0;
    if (!is_read) error = system_error(file);
  });
  if (error.code != Code::ok) return error;
  if (header[18] != 2 && header[19] != 2) return {};
  return {Code::failed, 0, file,
          "the file is in WAL mode; sqlite3 changes that by 'pragma journal_mode=delete'"};
}

bool is_known(const std::string& type, const std::string& name, const std::string& sql,
              const std::set<std::string>& notes) {
  // An index that belongs to a "unique" or a primary key has no statement.
  if (type == "index") return sql.empty();
  if (type != "table") return false;
  return name == "Config" || name == "sqlite_sequence" || name == "sqlite_stat1" ||
         name == "sqlite_stat4" || notes.count(sql) != 0 ||
         sql == "CREATE TABLE" + std::string(kOriginTable).substr(12);
}

}  // namespace

Result<Bundle> Bundle::open(const std::string& file, const Deadline& deadline) {
  if (Error error = check_file(file); error.code != Code::ok) return error;
  Result<Database> database = Database::open_read_only(file, deadline.left());
  if (!database) return Error{Code::failed, database.error().number, file, database.error().text};
  Bundle bundle(std::move(*database));
  Error error = bundle.check();
  if (error.code == Code::ok) error = bundle.open_notes(deadline);
  if (error.code != Code::ok) return bundle.explain(error);
  return bundle;
}

Error Bundle::damaged(const std::string& text) const { return {Code::damaged, 0, file(), text}; }

Error Bundle::explain(Error error) const {
  if (error.path != file()) return error;
  switch (error.number & 0xff) {
    case SQLITE_READONLY:
    case SQLITE_CANTOPEN:
      return {Code::failed, error.number, file(),
              "a writer of the file was killed; open it once with sqlite3 or confsave, which undoes what "
              "was not finished"};
    default:
      // Its own codes are about our storage.
      if (error.code == Code::no_storage) error.code = Code::damaged;
      return error;
  }
}

/// The schema first: a table that nobody knows could make the other check run functions.
Error Bundle::check() {
  Error error = database_.run("pragma cell_size_check=on; begin");
  if (error.code == Code::ok) error = check_schema();
  if (error.code == Code::ok) error = check_columns();
  return error.code == Code::ok ? check_structure() : error;
}

Error Bundle::check_schema() {
  Result<Statement> schema =
      database_.prepare("select type, name, ifnull(sql, ''), rootpage from sqlite_schema");
  if (!schema) return schema.error();
  const std::set<std::string> notes = Notes::schema();
  bool has_table = false;
  for (int code = schema->step(); code != SQLITE_DONE; code = schema->step()) {
    if (code != SQLITE_ROW) return database_.error();
    const std::string name = schema->text(1);
    if (!is_known(schema->text(0), name, schema->text(2), notes) || schema->number(3) <= 0) {
      return damaged("it has a " + printable(schema->text(0)) + " '" + printable(name) +
                     "', which no storage has");
    }
    has_table = has_table || name == "Config";
  }
  return has_table ? Error{} : damaged("it has no table 'Config'");
}

Error Bundle::check_columns() {
  Result<Statement> columns = database_.prepare(
      "select (select group_concat(name || ' ' || lower(type) || ' ' || pk, ', ') from "
      "(select * from pragma_table_xinfo('Config') where hidden = 0 order by cid)), "
      "(select count(*) from pragma_table_xinfo('Config')), sql like '%check%' or sql like '%without%' "
      "from sqlite_schema where name = 'Config'");
  if (!columns) return columns.error();
  if (columns->step() != SQLITE_ROW) return database_.error();
  const bool is_same = columns->text(0) == kColumns && columns->number(1) == 8 && columns->number(2) == 0;
  return is_same ? Error{} : damaged("its table 'Config' is not that of a storage");
}

Error Bundle::check_structure() {
  Result<Statement> check = database_.prepare("pragma integrity_check(1)");
  if (!check) return check.error();
  if (check->step() != SQLITE_ROW) return database_.error();
  const std::string result = check->text(0);
  return result == "ok" ? Error{} : damaged("it is damaged: " + printable(result));
}

Error Bundle::open_notes(const Deadline& deadline) {
  Result<Statement> table = database_.prepare("select count(*) from sqlite_schema where name = 'origin'");
  if (!table) return table.error();
  if (table->step() != SQLITE_ROW) return database_.error();
  if (table->number(0) == 0) return {};
  Result<Statement> origin = database_.prepare("select configuration from origin");
  if (!origin) return origin.error();
  const int code = origin->step();
  if (code != SQLITE_ROW && code != SQLITE_DONE) return database_.error();
  if (code == SQLITE_DONE) return damaged("it does not say where its paths are from");
  origin_ = origin->text(0);
  if (origin_.empty() || origin_.front() != '/' || origin_.back() != '/') {
    return damaged("it does not say where its paths are from");
  }
  Result<Database> database = Database::open_read_only(file(), deadline.left());
  if (!database) return database.error();
  Result<std::optional<Notes>> notes = Notes::open_in(std::move(*database));
  if (!notes) {
    Error error = notes.error();
    // Nothing that a caller allows would help.
    if (error.code == Code::newer) error.code = Code::failed;
    return error;
  }
  notes_ = std::move(*notes);
  return {};
}

Result<std::vector<BundleRow>> Bundle::rows(const std::string& pattern,
                                            const std::optional<int64>& version) {
  Result<Statement> values = database_.prepare(
      "select rowid, name, version, type, save_time, load_time, ifnull(length(keybase), 0), "
      "ifnull(length(etc), 0), typeof(name), typeof(version), typeof(type), typeof(save_time), "
      "typeof(load_time), typeof(keybase), typeof(etc) from Config where cast(name as text) glob ?1" +
      std::string(version ? " and version = ?2" : "") + " order by id");
  if (!values) return explain(values.error());
  values->bind(pattern);
  if (version) values->bind(*version);
  std::vector<BundleRow> rows;
  std::set<std::pair<std::string, int64>> seen;
  for (int code = values->step(); code != SQLITE_DONE; code = values->step()) {
    if (code != SQLITE_ROW) return explain(database_.error());
    Result<BundleRow> row = read_row(*values);
    if (!row) return row.error();
    const Config& config = row->snapshot.config;
    if (!seen.insert({config.name, config.vers}).second) return damaged("it has two rows of one name");
    rows.push_back(std::move(*row));
  }
  return rows;
}

Result<BundleRow> Bundle::read_row(const Statement& values) const {
  BundleRow row;
  row.rowid = values.number(0);
  row.snapshot.id = row.rowid;
  Config& config = row.snapshot.config;
  config.name = values.text(1);
  config.vers = values.number(2);
  config.type = static_cast<conftype>(values.number(3));
  config.save_time = values.number(4);
  config.load_time = values.number(5);
  row.snapshot.keybase_size = values.number(6);
  row.snapshot.etc_size = values.number(7);
  const auto is = [&values](int column, const char* type) { return values.text(column) == type; };
  const std::string name = "'" + printable(config.name) + "'";
  const bool has_types = is(8, "text") && is(9, "integer") && is(10, "integer") && is(11, "integer") &&
                         (is(12, "integer") || is(12, "null")) && is(13, "blob");
  const int64 type = values.number(3);
  if (!has_types || type < conf_none || type > conf_corlu) {
    return damaged(name + " has a value that no storage has");
  }
  // The packet filter's own snapshot has no failover files.
  if (!is(14, config.type == conf_corlu ? "null" : "blob")) return damaged(name + " has no failover files");
  if (Error error = check_id({config.name, config.vers}); error.code != Code::ok) {
    return damaged(name + ": " + error.text);
  }
  return row;
}

Result<Note> Bundle::note(const Snapshot& snapshot) {
  if (!notes_) return Note{};
  Result<std::map<int64, Note>> found = notes_->read({snapshot});
  if (!found) return explain(found.error());
  Note note = (*found)[snapshot.id];
  for (const std::string* text : {&note.comment, &note.author}) {
    if (Error error = check_comment(*text); error.code != Code::ok) {
      return damaged("'" + snapshot.config.name + "': " + error.text);
    }
  }
  return note;
}

Result<std::string> Bundle::here(const std::string& path) const {
  if (begins_with(path, origin_)) return config_directory() + path.substr(origin_.size());
  if (begins_with(path, kFailoverDirectory)) return path;
  return damaged("a path of a manifest is in neither directory: '" + printable(path) + "'");
}

Result<std::optional<Manifest>> Bundle::manifest(const Snapshot& snapshot) {
  if (!notes_) return std::optional<Manifest>();
  Result<std::optional<Manifest>> found = notes_->manifest(snapshot);
  if (!found) return explain(found.error());
  if (!*found) return std::optional<Manifest>();
  Manifest result;
  for (auto& [path, live] : (*found)->tree.members) {
    Result<std::string> moved = here(path);
    if (!moved) return moved.error();
    LiveMember member{std::move(live.member), {}};
    member.member.path = *moved;
    if (member.member.kind == Kind::hardlink) {
      Result<std::string> target = here(member.member.target);
      if (!target) return target.error();
      member.member.target = std::move(*target);
    }
    result.tree.members.emplace(std::move(*moved), std::move(member));
  }
  for (const std::string& path : (*found)->missing) {
    Result<std::string> moved = here(path);
    if (!moved) return moved.error();
    result.missing.push_back(std::move(*moved));
  }
  for (const auto& [path, parent] : (*found)->parents) {
    Result<std::string> moved = here(path);
    if (!moved) return moved.error();
    // A restore makes such a directory for its owner only.
    if ((parent.mode & ~0755U) == 0) result.parents.emplace(std::move(*moved), parent);
  }
  return std::optional<Manifest>(std::move(result));
}

}  // namespace ConfSave::snapshots
