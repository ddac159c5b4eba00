#include "storage/authorizer.h"

#include <sqlite3.h>

#include <string_view>

namespace ConfSave::sql {
namespace {

/// SQLite ignores the case of names. Arguments may be null.
bool is_same(const char* name, const char* other) {
  return name != nullptr && sqlite3_stricmp(name, other) == 0;
}

bool begins_with(const char* name, std::string_view prefix) {
  return name != nullptr && sqlite3_strnicmp(name, prefix.data(), static_cast<int>(prefix.size())) == 0;
}

/// The table itself, and the counter of keys that SQLite makes with it.
bool is_own_table(const char* name) { return is_same(name, "Config") || is_same(name, "sqlite_sequence"); }

/// The index of the unique names and versions.
bool is_own_index(const char* name) { return begins_with(name, "sqlite_autoindex_Config_"); }

/// SQLite itself writes to the schema when it makes a table; a statement cannot.
bool may_update(const char* table, const char* column) {
  return is_same(column, "load_time") || is_same(table, "sqlite_master");
}

/// A pragma function would be denied only when it runs, where a listing reports nothing. // Quirk Q63
bool may_read(const char* table) { return !begins_with(table, "pragma_"); }

/// Full-text tables ask for these two numbers while a statement that feeds them is prepared.
bool is_harmless_pragma(const char* name, const char* argument) {
  return argument == nullptr && (is_same(name, "data_version") || is_same(name, "page_size"));
}

/// Nobody leaves the file or loads code, triggers and virtual tables included.
bool leaves_the_file(int action, const char* function) {
  return action == SQLITE_ATTACH || action == SQLITE_DETACH ||
         (action == SQLITE_FUNCTION && is_same(function, "load_extension"));
}

bool is_allowed(int action, const char* first, const char* second) {
  switch (action) {
    case SQLITE_CREATE_TABLE:
      return is_own_table(first);
    case SQLITE_CREATE_INDEX:
      return is_own_index(first);
    case SQLITE_UPDATE:
      return may_update(first, second);
    case SQLITE_READ:
      return may_read(first);
    case SQLITE_PRAGMA:
      return is_harmless_pragma(first, second);
    case SQLITE_ALTER_TABLE:
    case SQLITE_REINDEX:
    case SQLITE_ANALYZE:
    case SQLITE_CREATE_TEMP_INDEX:
    case SQLITE_CREATE_TEMP_TABLE:
    case SQLITE_CREATE_TEMP_TRIGGER:
    case SQLITE_CREATE_TEMP_VIEW:
    case SQLITE_CREATE_TRIGGER:
    case SQLITE_CREATE_VIEW:
    case SQLITE_CREATE_VTABLE:
    case SQLITE_DROP_INDEX:
    case SQLITE_DROP_TABLE:
    case SQLITE_DROP_TEMP_INDEX:
    case SQLITE_DROP_TEMP_TABLE:
    case SQLITE_DROP_TEMP_TRIGGER:
    case SQLITE_DROP_TEMP_VIEW:
    case SQLITE_DROP_TRIGGER:
    case SQLITE_DROP_VIEW:
    case SQLITE_DROP_VTABLE:
      return false;
    default:
      return true;
  }
}

/// True while a statement runs: a statement that is prepared then comes from a virtual table. The storage
/// prepares none of its own before the last one has ended.
bool is_running(sqlite3* db) {
  for (sqlite3_stmt* statement = sqlite3_next_stmt(db, nullptr); statement != nullptr;
       statement = sqlite3_next_stmt(db, statement)) {
    if (sqlite3_stmt_busy(statement) != 0) return true;
  }
  return false;
}

int authorize(void* db, int action, const char* first, const char* second, const char*,
              const char* trigger) noexcept {
  if (leaves_the_file(action, second)) return SQLITE_DENY;
  if (is_running(static_cast<sqlite3*>(db))) return SQLITE_OK;
  // SQLite also passes the name of a common table expression as that of a trigger; it can only read.
  const bool foreign = trigger != nullptr && action != SQLITE_READ;
  return foreign || is_allowed(action, first, second) ? SQLITE_OK : SQLITE_DENY;
}

}  // namespace

void install_authorizer(sqlite3* db) {
  sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
  sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_set_authorizer(db, authorize, db);
}

}  // namespace ConfSave::sql
