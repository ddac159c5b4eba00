#include <limits>

#include "storage/rows.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

const std::string kCountWeekly = count_of("weekly");
const std::string kDeleteWeekly = delete_of("weekly");
const LogRecord kDeleted = says(kDelete, 4, "config name 'weekly'");

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

using StorageExists = OpenedStorage;

TEST_F(StorageExists, OnlyTheSameNameAndVersionExist) {
  const GroupedDigits grouped;
  put({"weekly", kCurrent});
  put({"extremes", kLowest});
  EXPECT_TRUE(storage->Exists("weekly", kCurrent));
  EXPECT_FALSE(storage->Exists("weekly", 0));
  EXPECT_FALSE(storage->Exists("weekly", kCurrent + 1));  // It prints as 4.5.4, too.
  EXPECT_FALSE(storage->Exists("Weekly", kCurrent));
  EXPECT_TRUE(storage->Exists("extremes", kLowest));
  expect_effects({},
                 {kCountWeekly, count_of("weekly", "0"), count_of("weekly", "17264017409"),
                  count_of("Weekly"), count_of("extremes", "-9223372036854775808")},
                 {});
}

TEST_F(StorageExists, InAMissingTableEveryNameExists) {
  change_schema("drop table Config");
  expect_logged({says(kExists, 2, refusal("no such table: Config", kCountWeekly, 1), {4})},
                [this] { EXPECT_TRUE(storage->Exists("weekly", kCurrent)); });
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

using StorageDelete = OpenedStorage;

TEST_F(StorageDelete, OnlyTheSameNameAndVersionAreDeleted) {
  for (const auto& [name, version] : {std::pair("weekly", kCurrent),
                                      {"weekly", kCurrent + 1},
                                      {"weekly", int64{0}},
                                      {"daily", kCurrent},
                                      {"Weekly", kCurrent}}) {
    put({name, version});
  }
  const GroupedDigits grouped;
  // The second time there is no such row.
  for (int times = 1; times <= 2; ++times) {
    forget();
    storage->Delete("weekly", kCurrent);
    expect_effects({}, {kDeleteWeekly}, {kDeleted});
    EXPECT_EQ(query("select name, version from Config order by id"), (Rows{{"weekly", "17264017409"},
                                                                           {"weekly", "0"},
                                                                           {"daily", "17264017408"},
                                                                           {"Weekly", "17264017408"}}));
  }
}

TEST_F(StorageDelete, NameIsInsertedUnchanged) {
  put({"weekly", 0});
  put({"daily", kCurrent});
  put({"daily", 0});
  storage->Delete("weekly' or name='daily", kCurrent);
  EXPECT_EQ(query("select name, version from Config"), (Rows{{"daily", "0"}}));
}

TEST_F(StorageDelete, RefusedDeleteIsReported) {
  rearrange(kKeepTrigger);
  put({"weekly", kCurrent});
  expect_logged({kDeleted, says(kDelete, 2, refusal("kept", kDeleteWeekly, 19), {4})},
                [this] { storage->Delete("weekly", kCurrent); });
  EXPECT_EQ(query("select name, version from Config"), (Rows{{"weekly", "17264017408"}}));
}

}  // namespace
