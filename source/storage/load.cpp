#include "confsave.h"

#include <sqlite3.h>

#include <ctime>
#include <new>
#include <vector>

#include "log.h"
#include "storage/sql.h"
#include "throw.h"

namespace ConfSave {
namespace {

const ClUnilogFname kLoad{"void ConfSave::Storage::Load(const string&, const char*, int64, bool)", "Load"};
const ClUnilogFname kCheckColumnType{
    "void ConfSave::checkColumnType(const string&, int64, sqlite3_stmt*, const char*, int, int, bool)",
    "checkColumnType"};

struct StoredRow {
  conftype type = static_cast<conftype>(-1);
  int64 id = -1;
  std::vector<char> keybase;
  std::vector<char> etc;
};

/// One query for one row, with what its messages need.
struct Query {
  const std::string& name;
  int64 version;
  sql::Statement statement;

  /// Column numbers of the query.
  enum Column { kKeybase, kEtc, kType, kId };

  void require(const char* column, Column index, int expected) {
    // A refusal finalizes the statement before it throws, so the statement is lent out for the call.
    sqlite3_stmt* lent = statement.release();
    checkColumnType(name, version, lent, column, index, expected, true);
    statement.reset(lent);
  }

  void expect(const char* column, Column index, int expected) {
    checkColumnType(name, version, statement.get(), column, index, expected, false);
  }
};

/// SQLite answers null for an empty blob, and for one that it has no memory for.
void copy_blob(sqlite3_stmt* statement, int column, int size, std::vector<char>& out) {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, column));
  if (bytes == nullptr && size != 0) throw std::bad_alloc();
  out.clear();
  if (size != 0) out.assign(bytes, bytes + size);
}

void read_row(Query& query, StoredRow& row) {
  query.require("keybase", Query::kKeybase, SQLITE_BLOB);
  query.require("type", Query::kType, SQLITE_INTEGER);
  query.require("id", Query::kId, SQLITE_INTEGER);
  row.type = static_cast<conftype>(sqlite3_column_int(query.statement.get(), Query::kType));
  row.id = sqlite3_column_int64(query.statement.get(), Query::kId);
  const bool has_etc = row.type != conf_corlu;  // Quirk Q17
  if (has_etc) {
    query.require("etc", Query::kEtc, SQLITE_BLOB);
  } else {
    query.expect("etc", Query::kEtc, SQLITE_BLOB);
  }

  sqlite3_stmt* statement = query.statement.get();
  const int keybase_size = sqlite3_column_bytes(statement, Query::kKeybase);
  const int etc_size = sqlite3_column_bytes(statement, Query::kEtc);
  copy_blob(statement, Query::kKeybase, keybase_size, row.keybase);
  if (has_etc) copy_blob(statement, Query::kEtc, etc_size, row.etc);
  if (KovrLogHelper record{2, kLoad, sql::kSource, "sqlite3_column_bytes: sz0="}) {
    record << keybase_size << ", sz1=" << etc_size;
  }
}

/// A query that cannot be prepared counts as a configuration that is not there. // Quirk Q15
sql::Statement prepare_query(sqlite3* db, const std::string& text) {
  sql::Statement statement;
  const int code = sql::prepare(db, text, statement);
  if (code == SQLITE_OK && statement != nullptr) return statement;
  const std::string error = sqlite3_errmsg(db);
  if (code != SQLITE_ROW && code != SQLITE_DONE) sql::report_error(kLoad, error.c_str(), text, code);
  if (KovrLogHelper record{1, kLoad, sql::kSource, "SQL error: "}) record << error << ". Query: " << text;
  throw_status<XNotFound>();
}

/// The row of this name and version; of several, which only a foreign table can hold, the last.
StoredRow fetch_row(sqlite3* db, const std::string& name, int64 version, bool skip_corlu) {
  Query query{name, version, prepare_query(db, sql::select_row(name, version, skip_corlu))};
  StoredRow row;
  int rows = 0;
  while (sqlite3_step(query.statement.get()) == SQLITE_ROW) {
    read_row(query, row);
    ++rows;
  }
  query.statement.reset();
  if (rows != 0) return row;
  if (KovrLogHelper record{2, kLoad, sql::kSource, "Configuration is not found: name="}) {
    record << name << ", version=" << version;
  }
  throw_status<XNotFound>();
}

}  // namespace

// Its messages have marks of their own, and the version as a number. // Quirk Q55
void checkColumnType(const std::string& name, int64 version, sqlite3_stmt* stmt, const char* column,
                     int index, int expected, bool strict) {
  const int actual = sqlite3_column_type(stmt, index);
  if (actual == expected) return;
  if (strict) {
    const sql::Statement finalized(stmt);
    const std::string message = "Stored configuration ``" + name + "'' (version " +
                                std::to_string(version) + ") is broken or invalid. column ``" + column +
                                "'' type is " + std::to_string(actual) + " (expected " +
                                std::to_string(expected) + ")";
    throw_text<XConstraint>(0, message.c_str());
  }
  if (KovrLogHelper record{4, kCheckColumnType, sql::kSource, "Configuration ``"}) {
    record << name << "'' (version " << version << ") contains column ``" << column << "'' with type "
           << actual << " (expected " << expected << "). ignoring difference";
  }
}

void Storage::Load(const std::string& name, const char* target, int64 version, bool skip_corlu) {
  log_text(2, kLoad, sql::kSource, "Try to load");
  const StoredRow row = fetch_row(db, name, version, skip_corlu);

  // Stamped before it is unpacked: an attempt counts as a load. // Quirk Q16
  sql::execute(db, sql::stamp_load_time(row.id, std::time(nullptr)), kLoad);
  if (KovrLogHelper record{4, kLoad, sql::kSource, "sqlite3_total_changes: "}) {
    record << sqlite3_total_changes(db);
  }

  Archive archive(row.type, config_path);
  archive.Create(row.etc, row.keybase);
  archive.Extract(target);
}

}  // namespace ConfSave
