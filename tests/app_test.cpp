// App::lst and App::del.

#include "confsave.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/dialogue.h"

namespace {

using namespace ConfSave;
using namespace test;

const std::string kDeleteWeekly = delete_of("weekly", "0");
const LogRecord kDeleteRecord = says(kDelete, 4, "config name 'weekly'");

// ---------------------------------------------------------------------------------------------------
// lst

class AppLst : public Dialogue {
 protected:
  std::string lst() { return dialogue("", App::lst); }
};

TEST_F(AppLst, EmptyStoragePrintsNothing) {
  EXPECT_EQ(lst(), "");
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, kSelectAll}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kList, 2, "Requested configuration list is empty (version=0)", {8})}));
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AppLst, PrintsEachRowInTheOrderOfTheStorage) {
  put({"weekly", kCurrent, 1, "1488377100", "1488447000"});
  put({"alpha", 0, 3, "1488377100"});
  put({"monthly", 4294967296, 7, "0"});
  EXPECT_EQ(
      lst(),
      "\"weekly\",\tversion 4.5.4,\tfull, saved on 01.03.2017 at 14:05, loaded at 02.03.2017 at 09:30\n"
      "\"alpha\",\tcorlu, saved on 01.03.2017 at 14:05, never loaded\n"
      "\"monthly\",\tversion 1.0.0,\t, saved on 01.01.1970 at 00:00, never loaded\n");
  EXPECT_EQ(statements(), Texts{kSelectAll});
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade}));
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

TEST_F(AppLst, SkipsThePacketFiltersRecord) {
  put({"corlu-config", 0, 3});
  put({"weekly", 0});
  put({"corlu-config", kCurrent, 3});
  EXPECT_EQ(lst(), "\"weekly\",\tfull, saved on 01.01.1970 at 00:16, never loaded\n");
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
  EXPECT_EQ(statements(), Texts());
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

// ---------------------------------------------------------------------------------------------------
// del

class AppDel : public Dialogue {
 protected:
  std::string del(const std::string& name = "weekly") {
    return dialogue("", [&] { App::del(name); });
  }

  const Rows weekly{{"1", "weekly", "0", "2", "1000", "2000"}};
  const RowSpec weekly_row{"weekly", 0, 2, "1000", "2000"};
};

TEST_F(AppDel, DeletesSilently) {
  put(weekly_row);
  EXPECT_EQ(del(), "");
  EXPECT_EQ(statements(), Texts{"delete from 'Config' where name='weekly' and version=0"});
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, kDeleteRecord}));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppDel, DeletesOnlyTheRowWithoutAVersion) {
  put({"weekly", kCurrent});
  put({"weekly", 0});
  put({"weekly", 1});
  put({"Weekly", 0});
  put({"weekly2", 0});
  EXPECT_EQ(del(), "");
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", kCurrentText, "1", "1000", "NULL"},
                          {"3", "weekly", "1", "1", "1000", "NULL"},
                          {"4", "Weekly", "0", "1", "1000", "NULL"},
                          {"5", "weekly2", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppDel, MissingNameIsSilent) {
  EXPECT_EQ(del(), "");
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, kDeleteWeekly}));
}

TEST_F(AppDel, NameIsNoPattern) {
  put(weekly_row);
  EXPECT_EQ(del("*"), "");
  EXPECT_EQ(statements(), Texts{delete_of("*", "0")});
  EXPECT_EQ(rows(), weekly);
}

TEST_F(AppDel, RefusedStatementIsSilent) {
  put(weekly_row);
  keep_all_rows();
  EXPECT_EQ(del(), "");
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, kDeleteRecord,
                                   says(kDelete, 2, refusal("kept", kDeleteWeekly, 19), {4})}));
  EXPECT_EQ(rows(), weekly);
}

TEST_F(AppDel, UnopenableStorageIsSilent) {
  make_storage_unopenable();
  EXPECT_EQ(del(), "");
  EXPECT_EQ(records(), LogRecords{kCannotOpen});
}

TEST_F(AppDel, WaitsForAnotherProcess) {
  put(weekly_row);
  const LockHolder other(database(), 300);
  Console console;
  App::del("weekly");
  EXPECT_EQ(console.transcript(), "");
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppDel, XNotFoundIsPrinted) {
  put(weekly_row);
  fail_in_log("Delete", throwing(XNotFound(0, true)));
  EXPECT_EQ(del(), "No such config.\n");
  EXPECT_EQ(rows(), weekly);
}

// ---------------------------------------------------------------------------------------------------
// Exceptions

class AppException : public Dialogue, public testing::WithParamInterface<Thrown> {
 protected:
  /// What App::del prints when `function` throws, and the text of the exception that propagates.
  std::pair<std::string, std::string> del(const std::string& function) {
    fail_in_log(function, GetParam().raise);
    std::string propagated;
    const auto call = [&] { propagated = thrown([] { App::del("weekly"); }); };
    const std::string printed = dialogue("", call);
    return {printed, propagated};
  }
};

TEST_P(AppException, FromListIsPrintedByLst) {
  fail_in_log("List", GetParam().raise);
  EXPECT_EQ(dialogue("", App::lst), "«Failed to open storage.\n»");
}

TEST_P(AppException, FromOpeningIsPrintedByLst) {
  fail_in_log("Storage", GetParam().raise);
  EXPECT_EQ(dialogue("", App::lst), "«Failed to open storage.\n»");
}

TEST_P(AppException, FromOpeningPropagatesFromDel) {
  EXPECT_EQ(del("Storage"), std::pair(std::string(), GetParam().text));
}

TEST_P(AppException, FromDeletePropagatesExceptXNotFound) {
  const bool caught = GetParam().name == "XNotFound";
  EXPECT_EQ(del("Delete"), std::pair(std::string(caught ? "No such config.\n" : ""),
                                     caught ? std::string("nothing") : GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Each, AppException, testing::ValuesIn(every_exception()), by_name);

}  // namespace
