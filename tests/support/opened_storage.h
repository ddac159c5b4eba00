#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <optional>
#include <string>

#include "support/gateway.h"

namespace test {

/// A gateway whose storage is open. Statements and log records of the opening are forgotten.
struct OpenedStorage : Gateway {
  OpenedStorage() { open(); }

  /// No test may leave an open statement, a held lock or a temporary file.
  void TearDown() override {
    if (storage) {
      EXPECT_EQ(sqlite3_next_stmt(connection, nullptr), nullptr);
    }
    EXPECT_TRUE(lock_is_free(database()));
    EXPECT_EQ(temp_files(), Texts());
  }

  void open() {
    storage.reset();
    storage.emplace();
    connection = recorder.connection();
    forget();
  }

  /// Runs `sql` without the library, then opens the storage again.
  void rearrange(const std::string& sql) {
    storage.reset();
    Database(database()).run(sql);
    open();
  }

  /// Runs `sql` without the library while the storage stays open and reads the schema again.
  void change_schema(const std::string& sql) {
    Database(database()).run(sql);
    sqlite3_exec(connection, "select * from sqlite_schema", nullptr, nullptr, nullptr);
    forget();
  }

  /// Checks all that the library ran and logged since the latest forget().
  void expect_effects(const Texts& run, const Texts& executed, const LogRecords& logged) const {
    EXPECT_EQ(commands(), run);
    EXPECT_EQ(statements(), executed);
    EXPECT_EQ(records(), logged);
  }

  /// Checks that `call` logs `expected` at level 4, and at each lower level those records that belong to
  /// it.
  void expect_logged(const LogRecords& expected, const std::function<void()>& call) {
    for (int level = 4; level >= 0; --level) {
      LogRecords share;
      for (const LogRecord& record : expected) {
        if (record.level <= level) share.push_back(record);
      }
      host.log_level = level;
      host.records.clear();
      call();
      EXPECT_EQ(records(), share) << "at level " << level;
    }
  }

  std::optional<ConfSave::Storage> storage;
  sqlite3* connection = nullptr;
};

}  // namespace test
