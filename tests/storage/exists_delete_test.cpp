#include <gtest/gtest.h>
#include <sqlite3.h>

#include <limits>
#include <string>
#include <utility>

#include "confsave.h"
#include "storage/rows.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

const std::string kCountWeekly = count_of("weekly");
const std::string kDeleteWeekly = delete_of("weekly");
const LogRecord kDeleted = says(kDelete, 4, "config name 'weekly'");

constexpr int64 kHighest = std::numeric_limits<int64>::max();
constexpr int64 kLowest = std::numeric_limits<int64>::min();

/// Makes count(*) return `text`, or NULL.
void answer_count_with(sqlite3* db, const char* text) {
  const auto step = [](sqlite3_context*, int, sqlite3_value**) {};
  const auto finish = [](sqlite3_context* context) {
    sqlite3_result_text(context, static_cast<const char*>(sqlite3_user_data(context)), -1, SQLITE_STATIC);
  };
  ASSERT_EQ(
      sqlite3_create_function(db, "count", 0, SQLITE_UTF8, const_cast<char*>(text), nullptr, step, finish),
      SQLITE_OK);
}

class StorageExists : public OpenedStorage {
 protected:
  /// Checks that a refused query counts as "exists" and is reported.
  void expect_refused(const std::string& error, int code = 1) {
    expect_logged({says(kExists, 2, refusal(error, kCountWeekly, code), {4})},
                  [this] { EXPECT_TRUE(storage->Exists("weekly", kCurrent)); });
  }
};

TEST_F(StorageExists, OnlyTheSameNameAndVersionExist) {
  const GroupedDigits grouped;  // Statements have no digit groups.
  EXPECT_FALSE(storage->Exists("weekly", kCurrent));
  put({"weekly", kCurrent});
  put({"extremes", kHighest});
  put({"extremes", kLowest});
  EXPECT_TRUE(storage->Exists("weekly", kCurrent));
  EXPECT_FALSE(storage->Exists("weekly", 0));
  EXPECT_FALSE(storage->Exists("weekly", kCurrent + 1));  // It prints as 4.5.4, too.
  EXPECT_TRUE(storage->Exists("extremes", kHighest));
  EXPECT_TRUE(storage->Exists("extremes", kLowest));
  EXPECT_EQ(
      statements(),
      (Texts{kCountWeekly, kCountWeekly, count_of("weekly", "0"), count_of("weekly", "17264017409"),
             count_of("extremes", "9223372036854775807"), count_of("extremes", "-9223372036854775808")}));
  for (const char* name : {"Weekly", "weekl", "weekly ", "week*", ""}) {
    EXPECT_FALSE(storage->Exists(name, kCurrent)) << name;
  }
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
}

TEST_F(StorageExists, TwoRowsOfAForeignTableExist) {
  rearrange(kForeignTable);
  put({"weekly", kCurrent});
  put({"weekly", kCurrent});
  EXPECT_TRUE(storage->Exists("weekly", kCurrent));
}

TEST_F(StorageExists, InAMissingTableEveryNameExists) {
  change_schema("drop table Config");
  expect_refused("no such table: Config");
}

TEST_F(StorageExists, InATableOfAnotherShapeEveryNameExists) {
  rearrange("drop table Config; create table Config (colour text)");
  expect_refused("no such column: name");
  EXPECT_EQ(statements(), Texts());
}

TEST_F(StorageExists, NameWithAQuoteExists) {
  EXPECT_TRUE(storage->Exists("o'hare", 0));
  EXPECT_EQ(records(),
            (LogRecords{says(kExists, 2, refusal("near \"hare\": syntax error", count_of("o'hare", "0"), 1),
                             {4})}));
}

TEST_F(StorageExists, NameIsInsertedUnchanged) {
  put({"o''hare", 0});
  EXPECT_TRUE(storage->Exists("o''hare", 0));
  EXPECT_TRUE(storage->Exists("nobody' or 'a'='a", 0));
}

TEST_F(StorageExists, CountIsReadAsADecimalTextOf32Bits) {
  for (const auto& [text, exists] : {std::pair<const char*, bool>(nullptr, false),
                                     {"0", false},
                                     {"", false},
                                     {"0x10", false},
                                     {"10", true},
                                     {" 7 rows", true},
                                     {"-1", true},
                                     {"4294967296", false},
                                     {"4294967297", true}}) {
    answer_count_with(connection, text);
    EXPECT_EQ(storage->Exists("weekly", kCurrent), exists) << (text != nullptr ? text : "NULL");
  }
  EXPECT_EQ(records(), LogRecords());
}

TEST_F(StorageExists, FailureAfterTheCountKeepsTheCount) {
  answer_count_with(connection, "0");
  interrupt_after_first_row(connection);
  EXPECT_FALSE(storage->Exists("weekly", kCurrent));
  EXPECT_EQ(records(), (LogRecords{says(kExists, 2, refusal("interrupted", kCountWeekly, 9), {4})}));
}

class StorageDelete : public OpenedStorage {
 protected:
  /// The names and versions of all rows.
  Rows rows() const { return query("select name, version from Config order by id"); }

  void expect_refused(const std::string& error, int code) {
    expect_logged({kDeleted, says(kDelete, 2, refusal(error, kDeleteWeekly, code), {4})},
                  [this] { storage->Delete("weekly", kCurrent); });
  }
};

TEST_F(StorageDelete, OnlyTheSameNameAndVersionAreDeleted) {
  for (const RowSpec& row :
       {RowSpec{"weekly", kCurrent}, RowSpec{"weekly", kCurrent + 1}, RowSpec{"weekly", 0},
        RowSpec{"daily", kCurrent}, RowSpec{"Weekly", kCurrent}}) {
    put(row);
  }
  const GroupedDigits grouped;
  // The second time there is no such row.
  for (int times = 1; times <= 2; ++times) {
    forget();
    storage->Delete("weekly", kCurrent);
    expect_effects({}, {kDeleteWeekly}, {kDeleted});
    EXPECT_EQ(query("select id, name, version, type, save_time, load_time from Config"),
              (Rows{{"2", "weekly", "17264017409", "1", "1000", "NULL"},
                    {"3", "weekly", "0", "1", "1000", "NULL"},
                    {"4", "daily", "17264017408", "1", "1000", "NULL"},
                    {"5", "Weekly", "17264017408", "1", "1000", "NULL"}}));
  }
}

TEST_F(StorageDelete, AllRowsOfAForeignTableAreDeleted) {
  rearrange(kForeignTable);
  put({"weekly", kCurrent});
  put({"weekly", kCurrent});
  storage->Delete("weekly", kCurrent);
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageDelete, NameWithAQuoteIsRefused) {
  put({"o''hare", 0});
  storage->Delete("o'hare", 0);
  EXPECT_EQ(records(),
            (LogRecords{says(kDelete, 4, "config name 'o'hare'"),
                        says(kDelete, 2,
                             refusal("near \"hare\": syntax error", delete_of("o'hare", "0"), 1), {4})}));
  EXPECT_EQ(rows(), (Rows{{"o'hare", "0"}}));
}

TEST_F(StorageDelete, NameIsInsertedUnchanged) {
  put({"weekly", 0});
  put({"daily", kCurrent});
  put({"daily", 0});
  storage->Delete("weekly' or name='daily", kCurrent);
  EXPECT_EQ(rows(), (Rows{{"daily", "0"}}));
}

TEST_F(StorageDelete, RefusedDeleteIsReported) {
  rearrange(kKeepTrigger);
  put({"weekly", kCurrent});
  expect_refused("kept", 19);
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408"}}));
}

TEST_F(StorageDelete, MissingTableIsReported) {
  change_schema("drop table Config");
  expect_refused("no such table: Config", 1);
}

}  // namespace
