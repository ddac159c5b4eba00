#include "confsave.h"

#include <sqlite3.h>

#include <ctime>
#include <new>
#include <vector>

#include "log.h"
#include "storage/sqlite.h"
#include "storage/statements.h"
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

/// Column numbers of the query.
enum Column { kKeybase, kEtc, kType, kId };

/// A column whose type is not the expected one, as messages name it.
struct Mismatch {
  const std::string& name;
  int64 version;
  const char* column;
  int actual;
  int expected;
};

/// The message has marks of its own, and the version as a number. // Quirk Q55
[[noreturn]] void reject(const Mismatch& mismatch) {
  const std::string message = "Stored configuration ``" + mismatch.name + "'' (version " +
                              std::to_string(mismatch.version) + ") is broken or invalid. column ``" +
                              mismatch.column + "'' type is " + std::to_string(mismatch.actual) +
                              " (expected " + std::to_string(mismatch.expected) + ")";
  throw_text<XConstraint>(status_none, message.c_str());
}

void log_ignored(const Mismatch& mismatch) {
  if (KovrLogHelper record{4, kCheckColumnType, sql::kSource, "Configuration ``"}) {
    record << mismatch.name << "'' (version " << mismatch.version << ") contains column ``"
           << mismatch.column << "'' with type " << mismatch.actual << " (expected " << mismatch.expected
           << "). ignoring difference";
  }
}

/// One query for one row, with the name and version that its messages need.
struct Query {
  const std::string& name;
  int64 version;
  sql::Statement statement;

  /// Throws XConstraint, or only logs, unless the column has the expected type.
  void check(const char* column, Column index, int expected, bool strict = true) const {
    const int actual = sqlite3_column_type(statement.get(), index);
    if (actual == expected) return;
    const Mismatch mismatch = {name, version, column, actual, expected};
    if (strict) reject(mismatch);
    log_ignored(mismatch);
  }
};

/// SQLite returns null for an empty blob, and for one that it has no memory for.
void copy_blob(sqlite3_stmt* statement, int column, int size, std::vector<char>& out) {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, column));
  if (bytes == nullptr && size != 0) throw std::bad_alloc();
  out.clear();
  if (size != 0) out.assign(bytes, bytes + size);
}

void read_row(const Query& query, StoredRow& row) {
  sqlite3_stmt* statement = query.statement.get();
  query.check("keybase", kKeybase, SQLITE_BLOB);
  query.check("type", kType, SQLITE_INTEGER);
  query.check("id", kId, SQLITE_INTEGER);
  row.type = static_cast<conftype>(sqlite3_column_int(statement, kType));
  row.id = sqlite3_column_int64(statement, kId);
  const bool has_etc = row.type != conf_corlu;  // Quirk Q17
  query.check("etc", kEtc, SQLITE_BLOB, has_etc);

  const int keybase_size = sqlite3_column_bytes(statement, kKeybase);
  const int etc_size = sqlite3_column_bytes(statement, kEtc);
  copy_blob(statement, kKeybase, keybase_size, row.keybase);
  if (has_etc) copy_blob(statement, kEtc, etc_size, row.etc);
  if (KovrLogHelper record{2, kLoad, sql::kSource, "sqlite3_column_bytes: sz0="}) {
    record << keybase_size << ", sz1=" << etc_size;
  }
}

/// A query that cannot be prepared counts as a missing configuration. // Quirk Q15
sql::Statement prepare_query(sqlite3* db, const std::string& text) {
  sql::Statement statement;
  const int code = sql::prepare(db, text, statement);
  if (code == SQLITE_OK && statement != nullptr) return statement;
  const std::string error = sqlite3_errmsg(db);
  if (code != SQLITE_ROW && code != SQLITE_DONE) sql::report_error(kLoad, error.c_str(), text, code);
  if (KovrLogHelper record{1, kLoad, sql::kSource, "SQL error: "}) record << error << ". Query: " << text;
  throw_status<XNotFound>();
}

/// The row of this name and version; the last if there are several, as only a foreign table can have.
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

void checkColumnType(const std::string& name, int64 version, sqlite3_stmt* stmt, const char* column,
                     int index, int expected, bool strict) {
  const int actual = sqlite3_column_type(stmt, index);
  if (actual == expected) return;
  const Mismatch mismatch = {name, version, column, actual, expected};
  if (!strict) return log_ignored(mismatch);
  const sql::Statement finalized(stmt);
  reject(mismatch);
}

void Storage::Load(const std::string& name, const char* target, int64 version, bool skip_corlu) {
  log_text(2, kLoad, sql::kSource, "Try to load");
  const StoredRow row = fetch_row(db, name, version, skip_corlu);

  // The stamp comes before the unpacking: an attempt counts as a load. // Quirk Q16
  sql::execute(db, sql::stamp_load_time(row.id, std::time(nullptr)), kLoad);
  if (KovrLogHelper record{4, kLoad, sql::kSource, "sqlite3_total_changes: "}) {
    record << sqlite3_total_changes(db);
  }

  Archive archive(row.type, config_path);
  archive.Create(row.etc, row.keybase);
  archive.Extract(target);
}

}  // namespace ConfSave
