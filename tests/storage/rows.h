#pragma once

// What the tests of the storage's rows share.

#include <chrono>
#include <thread>

#include "support/opened_storage.h"

namespace test {

/// A table of another program: like the library's, but without types and keys.
inline const std::string kForeignTable =
    "drop table Config; create table Config (id, name, version, keybase, etc, type, save_time, load_time)";

inline const std::string kKeepTrigger =
    "create trigger keep before delete on Config begin select raise(abort, 'kept'); end";

/// Interrupts every statement of the connection after its first row.
inline void interrupt_after_first_row(sqlite3* connection) {
  sqlite3_trace_v2(
      connection, SQLITE_TRACE_ROW,
      [](unsigned, void* db, void*, void*) {
        sqlite3_interrupt(static_cast<sqlite3*>(db));
        return 0;
      },
      connection);
}

/// Waits for a later second. Returns it.
inline std::time_t next_second() {
  const std::time_t start = std::time(nullptr);
  while (std::time(nullptr) == start) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return std::time(nullptr);
}

/// An opened storage and a whole configuration.
struct StorageOfConfiguration : OpenedStorage {
  StorageOfConfiguration() { make_configuration(); }

  const Rows old_row{{"1", "weekly", "17264017408", "1", "1000", "NULL"}};
};

}  // namespace test
