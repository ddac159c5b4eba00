#include <limits>

#include "storage/rows.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

using StorageCreate = StorageOfConfiguration;

TEST_F(StorageCreate, NamesAreNeitherCheckedNorCut) {
  const std::string name(300, 'x');
  for (const std::string& each :
       {name, std::string(), std::string("\xc3\xbc \"%s?"), std::string("o''hare")}) {
    storage->Create(each, conf_corlu, 0);
  }
  EXPECT_EQ(query("select name from Config order by id"),
            (Rows{{name}, {""}, {"\xc3\xbc \"%s?"}, {"o'hare"}}));
}

TEST_F(StorageCreate, NameThatLeavesNoParameterDecidesTheRow) {
  storage->Create("a',null,null,1,2,3)--", conf_full, 0);
  EXPECT_EQ(
      records(),
      (LogRecords{says(kCreate, 2, "Try to save configuration 'a',null,null,1,2,3)--' (version 0)", {8}),
                  says(kCreate, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(query("select name, keybase, etc, version, save_time, type from Config"),
            (Rows{{"a", "NULL", "NULL", "1", "2", "3"}}));
}

TEST_F(StorageCreate, MessageOfATakenNameHasTheVersionAsText) {
  host.no_log = true;
  const GroupedDigits grouped;
  for (const auto& [version, text] : {std::pair(std::numeric_limits<int64>::min(), "-2147483648.0.0"),
                                      {int64{0}, ""},
                                      {kCurrent, "4.5.4"}}) {
    put({"weekly", version});
    EXPECT_EQ(thrown([&, v = version] { storage->Create("weekly", conf_corlu, v); }),
              std::string("ConfSave::XConstraint 0: Configuration 'weekly' (version ") + text +
                  ") already exists");
  }
  EXPECT_EQ(query("select version, save_time from Config order by id"),
            (Rows{{"-9223372036854775808", "1000"}, {"0", "1000"}, {"17264017408", "1000"}}));
  EXPECT_EQ(records(), LogRecords());
}

// Update only

using StorageUpdate = StorageOfConfiguration;

TEST_F(StorageUpdate, OldRowIsReplaced) {
  put({"weekly", kCurrent, 1, "1000", "2000"});
  put({"weekly", 0, 1, "1000", "2000"});
  put({"daily", kCurrent, 1, "1000", "2000"});
  storage->Update("weekly", conf_part, kCurrent);
  expect_effects({kPackEtc, kPackPart}, {delete_of("weekly"), insert_of("weekly", kCurrentText, "2")},
                 {says(kUpdate, 2, "Try to update configuration 'weekly' (version 17264017408)", {8}),
                  says(kUpdate, 4, "sqlite3_total_changes: 2", {4})});
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "0", "1", "1000", "2000"},
                          {"3", "daily", "17264017408", "1", "1000", "2000"},
                          {"4", "weekly", "17264017408", "2", "<now>", "NULL"}}));
}

TEST_F(StorageUpdate, TimeIsTakenAfterTheDelete) {
  put({"weekly", kCurrent});
  std::time_t deleted = 0;
  sqlite3_update_hook(
      connection,
      [](void* time, int operation, const char*, const char*, sqlite3_int64) {
        if (operation == SQLITE_DELETE) *static_cast<std::time_t*>(time) = next_second();
      },
      &deleted);
  storage->Update("weekly", conf_full, kCurrent);
  ASSERT_NE(deleted, 0);
  EXPECT_GE(std::stoll(Database(database()).value("select save_time from Config")), deleted);
}

// A storage that is not opened

using UnopenedRecords = Gateway;

TEST_F(UnopenedRecords, NothingExistsAndNothingIsDone) {
  make_configuration();
  setenv("KELMOR_DYNAMIC_DIR", (root() + "/missing").c_str(), 1);
  Storage storage;
  EXPECT_FALSE(storage.opened);
  host.records.clear();
  EXPECT_FALSE(storage.Exists("weekly", kCurrent));
  storage.Create("weekly", conf_full, kCurrent);
  storage.Update("weekly", conf_full, kCurrent);
  storage.Delete("weekly", kCurrent);
  EXPECT_EQ(host.records, LogRecords());
  EXPECT_EQ(host.commands, Texts());
  EXPECT_EQ(recorder.statements(), Texts());
  EXPECT_FALSE(exists(root() + "/missing"));
}

}  // namespace
