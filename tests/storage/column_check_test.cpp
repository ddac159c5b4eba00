#include <gtest/gtest.h>
#include <sqlite3.h>

#include "confsave.h"
#include "support/gateway.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

/// A statement that stands on a row of a table, with one column of each type in the order of SQLite's
/// codes.
class ColumnCheck : public Gateway {
 protected:
  ColumnCheck() : db(database()) {
    db.run("create table Config (i, f, t, b, n)");
    db.run("insert into Config values (1, 2.5, 'text', x'00', null)");
    sqlite3_prepare_v2(db.get(), "select * from Config", -1, &statement, nullptr);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
  }

  ~ColumnCheck() override {
    while (sqlite3_stmt* left = sqlite3_next_stmt(db.get(), nullptr)) sqlite3_finalize(left);
  }

  void check(int index, int expected, bool strict) {
    checkColumnType("weekly", kCurrent, statement, "keybase", index, expected, strict);
  }

  /// The statement stands on its row as before, which keeps others from writing.
  void expect_untouched() {
    EXPECT_EQ(sqlite3_next_stmt(db.get(), nullptr), statement);
    EXPECT_EQ(sqlite3_column_int(statement, 0), 1);
    EXPECT_FALSE(lock_is_free(database()));
  }

  void expect_finalized() {
    EXPECT_EQ(sqlite3_next_stmt(db.get(), nullptr), nullptr);
    EXPECT_TRUE(lock_is_free(database()));
  }

  static LogRecord ignored(const std::string& text) {
    return says(kCheckColumnType, 4, text + ". ignoring difference", {8, 4, 4});
  }

  Database db;
  sqlite3_stmt* statement = nullptr;
};

TEST_F(ColumnCheck, ExpectedTypeIsAcceptedInBothModes) {
  for (int index = 0; index < 5; ++index) {
    check(index, index + 1, true);
    check(index, index + 1, false);
  }
  EXPECT_EQ(host.records, LogRecords());
  expect_untouched();
}

TEST_F(ColumnCheck, NullInPlaceOfABlobIsRejected) {
  EXPECT_EQ(thrown([this] { check(4, 4, true); }),
            "ConfSave::XConstraint 0: Stored configuration ``weekly'' (version 17264017408) is broken or "
            "invalid. column ``keybase'' type is 5 (expected 4)");
  EXPECT_EQ(host.records, LogRecords());
  expect_finalized();
}

TEST_F(ColumnCheck, NullInPlaceOfABlobIsTolerated) {
  check(4, 4, false);
  EXPECT_EQ(host.records, LogRecords{ignored("Configuration ``weekly'' (version 17264017408) contains "
                                             "column ``keybase'' with type 5 (expected 4)")});
  host.records.clear();
  host.log_level = 3;
  check(4, 4, false);
  EXPECT_EQ(host.records, LogRecords());
  expect_untouched();
}

TEST_F(ColumnCheck, EveryTypeHasItsCode) {
  LogRecords all;
  for (int actual = 1; actual <= 5; ++actual) {
    for (int expected = 1; expected <= 5; ++expected) {
      check(actual - 1, expected, false);
      if (actual == expected) continue;
      all.push_back(
          ignored("Configuration ``weekly'' (version 17264017408) contains column ``keybase'' with type " +
                  std::to_string(actual) + " (expected " + std::to_string(expected) + ")"));
    }
  }
  EXPECT_EQ(host.records, all);
  expect_untouched();
}

TEST_F(ColumnCheck, MessagesContainTheArgumentsUnchanged) {
  checkColumnType("", 0, statement, "", 1, 4, false);
  EXPECT_EQ(host.records,
            LogRecords{ignored("Configuration ``'' (version 0) contains column ``'' with type "
                               "2 (expected 4)")});
  expect_untouched();
  EXPECT_EQ(
      thrown([this] { checkColumnType("o'hare %s", -1, statement, "no such", 2, 1, true); }),
      "ConfSave::XConstraint 0: Stored configuration ``o'hare %s'' (version -1) is broken or invalid. "
      "column ``no such'' type is 3 (expected 1)");
  expect_finalized();
}

TEST_F(ColumnCheck, MessageHasNoDigitGroups) {
  const GroupedDigits grouped;
  EXPECT_EQ(thrown([this] { check(0, 4, true); }),
            "ConfSave::XConstraint 0: Stored configuration ``weekly'' (version 17264017408) is broken or "
            "invalid. column ``keybase'' type is 1 (expected 4)");
}

}  // namespace
