#include "support/gateway.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

/// A statement that stands on a row of a table, with one column of each type in the order of SQLite's
/// codes.
struct ColumnCheck : Gateway {
  ColumnCheck() : db(database()) {
    db.run("create table Config (i, f, t, b, n)");
    db.run("insert into Config values (1, 2.5, 'text', x'00', null)");
    sqlite3_prepare_v2(db.get(), "select * from Config", -1, &statement, nullptr);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
  }

  ~ColumnCheck() override {
    while (sqlite3_stmt* left = sqlite3_next_stmt(db.get(), nullptr)) sqlite3_finalize(left);
  }

  void expect_open(bool open) {
    EXPECT_EQ(sqlite3_next_stmt(db.get(), nullptr), open ? statement : nullptr);
    EXPECT_EQ(lock_is_free(database()), !open);
  }

  Database db;
  sqlite3_stmt* statement = nullptr;
};

TEST_F(ColumnCheck, AnotherTypeIsRejectedAndTheStatementFinalized) {
  const GroupedDigits grouped;
  EXPECT_EQ(
      thrown([this] { checkColumnType("o'hare %s", kCurrent, statement, "no such", 4, 3, true); }),
      "ConfSave::XConstraint 0: Stored configuration ``o'hare %s'' (version 17264017408) is broken or "
      "invalid. column ``no such'' type is 5 (expected 3)");
  EXPECT_EQ(host.records, LogRecords());
  expect_open(false);
}

TEST_F(ColumnCheck, AnotherTypeIsOnlyLoggedUnlessStrict) {
  for (int actual = 1; actual <= 5; ++actual) {
    checkColumnType("weekly", -1, statement, "keybase", actual - 1, actual, true);
    for (int expected = 1; expected <= 5; ++expected) {
      host.records.clear();
      checkColumnType("weekly", -1, statement, "keybase", actual - 1, expected, false);
      const LogRecord ignored = says(
          kCheckColumnType, 4,
          "Configuration ``weekly'' (version -1) contains column ``keybase'' with type " +
              std::to_string(actual) + " (expected " + std::to_string(expected) + "). ignoring difference",
          {8, 4, 4});
      EXPECT_EQ(host.records, actual == expected ? LogRecords() : LogRecords{ignored});
    }
  }
  expect_open(true);
}

}  // namespace
