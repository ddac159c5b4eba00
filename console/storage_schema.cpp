#include "storage_schema.h"

#include <places.h>
#include <sqlite3.h>

#include <climits>
#include <memory>

namespace console {
namespace {

struct Close {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
};

int note_row(void* found, int, char**, char**) {
  *static_cast<bool*>(found) = true;
  return 0;
}

}  // namespace

bool has_foreign_config() {
  sqlite3* opened = nullptr;
  // For writing, so that SQLite can undo what a crash left half done, as the library would.
  const int code =
      sqlite3_open_v2(ConfSave::storage_file().c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, Close> database(opened);
  if (code != SQLITE_OK) return false;
  sqlite3_busy_timeout(opened, INT_MAX);
  bool found = false;
  // A virtual table has no pages of its own.
  sqlite3_exec(opened,
               "select 1 from sqlite_master where name = 'Config' collate nocase and type <> 'trigger' and "
               "(type <> 'table' or ifnull(rootpage, 0) = 0)",
               note_row, &found, nullptr);
  return found;
}

}  // namespace console
