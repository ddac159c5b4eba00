#include "snapshots/storage_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "places.h"
#include "snapshots/access.h"

namespace ConfSave::snapshots {
namespace {

const char* order_of(Query::Order order) {
  switch (order) {
    case Query::Order::name:
      return "name, id";
    case Query::Order::version:
      return "version, id";
    case Query::Order::saved:
      return "save_time, id";
    case Query::Order::loaded:
      return "load_time, id";
    case Query::Order::id:
      break;
  }
  return "id";
}

std::string rows_of(const Query& query, const std::string& names) {
  std::string text =
      "select id, name, version, type, save_time, load_time, "
      "ifnull(length(keybase), 0), ifnull(length(etc), 0) from Config where " +
      names;
  if (query.version) text += " and version = ?2";
  if (query.up_to) text += " and version <= ?3";
  if (!query.corlu_config) text += " and cast(name as text) <> 'corlu-config'";
  return text;
}

/// A name that another program stored as a blob is a name too. SQLite sorts blobs behind all texts, so that
/// it finds both in the index: a row elsewhere that is damaged does not matter then.
std::string text_of(const Query& query) {
  return rows_of(query, "name glob ?1") + " union all " +
         rows_of(query, "likelihood(name >= x'', 0.000001) and cast(name as text) glob ?1") + " order by " +
         order_of(query.order);
}

Snapshot read_row(const Statement& statement) {
  Snapshot snapshot;
  snapshot.id = statement.number(0);
  snapshot.config.name = statement.text(1);
  snapshot.config.vers = statement.number(2);
  snapshot.config.type = static_cast<conftype>(statement.number(3));
  snapshot.config.save_time = statement.number(4);
  snapshot.config.load_time = statement.number(5);
  snapshot.keybase_size = statement.number(6);
  snapshot.etc_size = statement.number(7);
  return snapshot;
}

}  // namespace

std::string literally(const std::string& name) {
  std::string pattern;
  for (const char letter : name) {
    const bool special = letter == '*' || letter == '?' || letter == '[';
    pattern += special ? std::string("[") + letter + "]" : std::string(1, letter);
  }
  return pattern;
}

namespace {

/// False if a column is generated.
Result<bool> has_plain_columns(Database& database) {
  Result<Statement> columns = database.prepare("pragma table_xinfo(Config)");
  if (!columns) return columns.error();
  constexpr int kHidden = 6;
  int code = columns->step();
  for (; code == SQLITE_ROW; code = columns->step()) {
    if (columns->number(kHidden) > 1) return false;
  }
  if (code != SQLITE_DONE) return database.error();
  return true;
}

}  // namespace

Result<bool> look_for_table(Database& database) {
  Result<Statement> statement = database.prepare(
      "select count(*), ifnull(sum(name = 'Config' collate nocase and type = 'table' and rootpage > 0), 0) "
      "from sqlite_schema");
  if (!statement) return statement.error();
  if (statement->step() != SQLITE_ROW) return database.error();
  // The file is there before its table.
  if (statement->number(0) == 0) return false;
  if (statement->number(1) == 1) {
    const Result<bool> is_plain = has_plain_columns(database);
    if (!is_plain) return is_plain.error();
    if (*is_plain) return true;
  }
  return Error{Code::no_storage, 0, database.file(), "it has no table 'Config'"};
}

Result<std::optional<StorageReader>> StorageReader::open(std::chrono::milliseconds wait) {
  Result<Database> database = Database::open(storage_file(), wait);
  if (!database) {
    // A directory that is not there is another matter than a file that nobody has made.
    const bool is_new = database.error().number == ENOENT && may_access(state_directory(), F_OK);
    if (is_new) return std::optional<StorageReader>();
    return database.error();
  }
  Result<bool> has_table = look_for_table(*database);
  if (!has_table) return has_table.error();
  if (!*has_table) return std::optional<StorageReader>();
  return std::optional<StorageReader>(StorageReader(std::move(*database)));
}

Error StorageReader::begin() { return database_.run("begin"); }

Error StorageReader::for_each(const Query& query, const std::function<Error(Snapshot)>& row) {
  Result<Statement> statement = database_.prepare(text_of(query));
  if (!statement) return statement.error();
  statement->bind(query.pattern).bind(query.version.value_or(0)).bind(query.up_to.value_or(0));
  for (;;) {
    const int code = statement->step();
    if (code == SQLITE_DONE) return {};
    if (code != SQLITE_ROW) return database_.error();
    if (Error error = row(read_row(*statement)); error.code != Code::ok) return error;
  }
}

Error StorageReader::count(const std::function<void(const Counted&)>& row) {
  Result<Statement> statement = database_.prepare(
      "select name, save_time, ifnull(length(keybase), 0) + ifnull(length(etc), 0) from Config "
      "where cast(name as text) <> 'corlu-config'");
  if (!statement) return statement.error();
  for (;;) {
    const int code = statement->step();
    if (code == SQLITE_DONE) return {};
    if (code != SQLITE_ROW) return database_.error();
    row({statement->text(0), statement->number(1), statement->number(2)});
  }
}

}  // namespace ConfSave::snapshots
