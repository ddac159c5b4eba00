#include "storage/guard.h"

#include <sqlite3.h>

#include <string_view>

namespace ConfSave::sql {
namespace {

using Text = std::string_view;

Text text_of(const char* argument) { return argument != nullptr ? argument : ""; }

/// The table itself, and what SQLite makes along with it: the counter of its keys.
bool is_own_table(Text name) { return name == "Config" || name == "sqlite_sequence"; }

/// The index of the unique names and versions.
bool is_own_index(Text name) {
  constexpr Text kPrefix = "sqlite_autoindex_Config_";
  return name.substr(0, kPrefix.size()) == kPrefix;
}

/// Making the table writes to the schema, which statements cannot do by themselves. What a trigger does is
/// the database's own doing.
bool may_update(Text table, Text column, Text trigger) {
  return column == "load_time" || table == "sqlite_master" || !trigger.empty();
}

bool is_allowed(int action, Text first, Text second, Text trigger) {
  switch (action) {
    case SQLITE_CREATE_TABLE:
      return is_own_table(first);
    case SQLITE_CREATE_INDEX:
      return is_own_index(first);
    case SQLITE_UPDATE:
      return may_update(first, second, trigger);
    case SQLITE_FUNCTION:
      return second != "load_extension";
    case SQLITE_ATTACH:
    case SQLITE_DETACH:
    case SQLITE_PRAGMA:
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

int authorize(void*, int action, const char* first, const char* second, const char*,
              const char* trigger) noexcept {
  return is_allowed(action, text_of(first), text_of(second), text_of(trigger)) ? SQLITE_OK : SQLITE_DENY;
}

}  // namespace

void guard(sqlite3* db) {
  sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
  sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_set_authorizer(db, authorize, nullptr);
}

}  // namespace ConfSave::sql
