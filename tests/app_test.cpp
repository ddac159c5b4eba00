// App::lst and App::del.

#include "support/dialogue.h"

namespace {

using namespace ConfSave;
using namespace test;

struct AppLst : Dialogue {
  std::string lst() { return dialogue("", App::lst); }
};

TEST_F(AppLst, EmptyStoragePrintsNothing) {
  EXPECT_EQ(lst(), "");
  EXPECT_EQ(statements(), (Texts{kPageSize, kAutoVacuum, kCreateTable, kSelectAll}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kList, 2, "Requested configuration list is empty (version=0)", {8})}));
}

TEST_F(AppLst, PrintsEachRowInTheOrderOfTheStorage) {
  put({"weekly", kCurrent, 1, "1488377100", "1488447000"});
  put({"corlu-config", 0, 3});
  put({"alpha", 0, 3, "1488377100"});
  put({"monthly", 4294967296, 7, "0"});
  EXPECT_EQ(
      lst(),
      "\"weekly\",\tversion 4.5.4,\tfull, saved on 01.03.2017 at 14:05, loaded at 02.03.2017 at 09:30\n"
      "\"alpha\",\tcorlu, saved on 01.03.2017 at 14:05, never loaded\n"
      "\"monthly\",\tversion 1.0.0,\t, saved on 01.01.1970 at 00:00, never loaded\n");
  EXPECT_EQ(statements(), Texts{kSelectAll});
}

TEST_F(AppLst, PrintsEveryVersionOfAName) {
  put({"weekly", 9223372036854775807, 2});
  put({"weekly", 0, 2});
  put({"weekly", -1, 2});
  EXPECT_EQ(lst(),
            "\"weekly\",\tversion 2147483647.255.255,\tpart, saved on 01.01.1970 at 00:16, never loaded\n"
            "\"weekly\",\tpart, saved on 01.01.1970 at 00:16, never loaded\n"
            "\"weekly\",\tversion -1.255.255,\tpart, saved on 01.01.1970 at 00:16, never loaded\n");
}

TEST_F(AppLst, SkipsARowWithoutAName) {
  Database(database()).run("create table Config (name, version, keybase, etc, type, save_time, load_time)");
  put({"weekly", 0});
  Database(database()).run("insert into Config (version) values (0)");
  EXPECT_EQ(lst(), "\"weekly\",\tfull, saved on 01.01.1970 at 00:16, never loaded\n");
}

TEST_F(AppLst, UnopenableStoragePrintsNothing) {
  make_storage_unopenable();
  EXPECT_EQ(lst(), "");
  EXPECT_EQ(records(), LogRecords{kCannotOpen});
}

TEST_F(AppLst, DamagedStoragePrintsNothing) {
  damage_database();
  EXPECT_EQ(lst(), "");
}

TEST_F(AppLst, LinesWrittenBeforeAFailureRemain) {
  for (const char* name : {"weekly", "daily", "hourly"}) put({name, 0});
  const std::string two_lines =
      "\"weekly\",\tfull, saved on 01.01.1970 at 00:16, never loaded\n"
      "\"daily\",\tfull, saved on 01.01.1970 at 00:16, never loaded\n";
  EXPECT_EQ(dialogue("",
                     [&] {
                       const BreakingOutput broken(two_lines.size());
                       App::lst();
                     }),
            two_lines + "«Failed to open storage.\n»");
}

TEST_F(AppLst, ExceptionIsPrinted) {
  for (const Thrown& row : every_exception()) {
    for (const char* function : {"Storage", "List"}) {
      fail_in_log(function, row.raise);
      EXPECT_EQ(lst(), "«Failed to open storage.\n»") << row.name << " " << function;
    }
  }
}

struct AppDel : Dialogue {
  /// What is printed, then the text of the exception that propagates.
  Texts del(const std::string& name = "weekly") {
    std::string propagated;
    const std::string printed = dialogue("", [&] { propagated = thrown([&] { App::del(name); }); });
    return {printed, propagated};
  }

  const Texts silent{"", "nothing"};
};

TEST_F(AppDel, DeletesOnlyTheRowWithoutAVersion) {
  put({"weekly", kCurrent});
  put({"weekly", 0});
  put({"weekly", 1});
  put({"Weekly", 0});
  put({"weekly2", 0});
  EXPECT_EQ(del(), silent);
  EXPECT_EQ(statements(), Texts{"delete from 'Config' where name='weekly' and version=0"});
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, says(kDelete, 4, "config name 'weekly'")}));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", kCurrentText, "1", "1000", "NULL"},
                          {"3", "weekly", "1", "1", "1000", "NULL"},
                          {"4", "Weekly", "0", "1", "1000", "NULL"},
                          {"5", "weekly2", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppDel, MissingNameIsSilent) {
  put({"weekly", 0});
  EXPECT_EQ(del("*"), silent);
  EXPECT_EQ(statements(), Texts{delete_of("*", "0")});
  EXPECT_EQ(rows().size(), 1U);
}

TEST_F(AppDel, RefusedStatementIsSilent) {
  put({"weekly", 0});
  keep_all_rows();
  EXPECT_EQ(del(), silent);
  EXPECT_EQ(rows().size(), 1U);
}

TEST_F(AppDel, UnopenableStorageIsSilent) {
  make_storage_unopenable();
  EXPECT_EQ(del(), silent);
  EXPECT_EQ(records(), LogRecords{kCannotOpen});
}

TEST_F(AppDel, XNotFoundIsPrinted) {
  put({"weekly", 0});
  expect_propagation("Storage", [] { App::del("weekly"); });
  for (const Thrown& row : every_exception()) {
    fail_in_log("Delete", row.raise);
    EXPECT_EQ(del(),
              row.name == "XNotFound" ? (Texts{"No such config.\n", "nothing"}) : (Texts{"", row.text}));
  }
  EXPECT_EQ(rows().size(), 1U);
}

}  // namespace
