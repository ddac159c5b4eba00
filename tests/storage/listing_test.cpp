#include "storage/rows.h"

namespace {

using namespace ConfSave;
using namespace test;

const std::string kWeekly = "weekly|17264017408|1|2000|3000";
const std::string kCorlu = "corlu-config|5|3|1000|0";
const std::string kDaily = "daily|0|2|500|0";

/// name|version|type|save_time|load_time
Texts shown(const Configs& configs) {
  Texts texts;
  for (const Config& config : configs) {
    texts.push_back(config.name + "|" + std::to_string(config.vers) + "|" + std::to_string(config.type) +
                    "|" + std::to_string(config.save_time) + "|" + std::to_string(config.load_time));
  }
  return texts;
}

struct Listing : OpenedStorage {
  Texts list(int64 version, const std::string& order_by, bool skip_corlu) {
    return shown(storage->List(version, order_by, skip_corlu));
  }
  Texts find(const std::string& pattern, int64 version, bool skip_corlu) {
    return shown(storage->FindMatching(pattern, version, skip_corlu));
  }
  void put_three() {
    put({"weekly", kCurrent, 1, "2000", "3000"});
    put({"corlu-config", 5, 3, "1000"});
    put({"daily", 0, 2, "500"});
  }
  /// A row of nulls, and one whose times have more than 32 bits.
  void put_odd() {
    rearrange(kForeignTable + "; insert into Config (name) values ('x')");
    put({"far", 1, 1, "2147483648", "4294967297"});
  }

  /// Checks that the log has only the report of this refused statement.
  void expect_refused(const Function& function, const std::string& error, const std::string& statement,
                      int code) {
    EXPECT_EQ(records(), (LogRecords{says(function, 2, refusal(error, statement, code), {4})}));
  }
};

using StorageList = Listing;

TEST_F(StorageList, VersionIsAnUpperBoundAndCorluConfigIsSkippedOnRequest) {
  put_three();
  EXPECT_EQ(list(0, "", false), (Texts{kWeekly, kCorlu, kDaily}));
  EXPECT_EQ(list(0, "", true), (Texts{kWeekly, kDaily}));
  EXPECT_EQ(list(5, "", false), (Texts{kCorlu, kDaily}));
  EXPECT_EQ(list(4, "", false), Texts{kDaily});
  EXPECT_EQ(list(kCurrent, "", true), (Texts{kWeekly, kDaily}));
  EXPECT_EQ(list(kCurrent - 1, "", true), Texts{kDaily});
  EXPECT_EQ(list(0, "save_time", false), (Texts{kDaily, kCorlu, kWeekly}));
  EXPECT_EQ(list(0, "name desc", true), (Texts{kWeekly, kDaily}));
  EXPECT_EQ(records(), LogRecords());
}

TEST_F(StorageList, PragmaFunctionInTheOrderIsReported) {
  put({"weekly"});
  EXPECT_EQ(list(0, "(select name from pragma_table_info('Config'))", false), Texts());
  expect_refused(
      kList, "access to pragma_table_info.name is prohibited",
      "select name, version, type, save_time, load_time from 'Config' order by (select name from "
      "pragma_table_info('Config'))",
      23);
}

TEST_F(StorageList, EmptyTableIsLogged) {
  host.on_recorded = [this] { EXPECT_EQ(sqlite3_next_stmt(connection, nullptr), nullptr); };
  expect_logged({says(kList, 2, "Requested configuration list is empty (version=0)", {8}),
                 says(kList, 2, "Requested configuration list is empty (version=17264017408)", {8})},
                [this] {
                  EXPECT_EQ(list(0, "", true), Texts());
                  EXPECT_EQ(list(kCurrent, "", true), Texts());
                });
}

TEST_F(StorageList, NullsReadAsZeroAndTimesWrapAt32Bits) {
  put_odd();
  EXPECT_EQ(list(0, "", true), (Texts{"x|0|0|0|0", "far|1|1|-2147483648|1"}));
}

TEST_F(StorageList, RowWithoutANameIsALogicError) {
  rearrange(kForeignTable + "; insert into Config (version) values (1)");
  EXPECT_EQ(thrown([this] { list(0, "", false); }),
            "std::logic_error: stored configuration without a name");
}

TEST_F(StorageList, FailedStepEndsTheListSilently) {
  rearrange(
      "drop table Config; create view Config as select 'a' name, 1 version, 1 type, 2 save_time, 3 "
      "load_time "
      "union all select 'b', abs(-9223372036854775808), 1, 2, 3");
  EXPECT_EQ(list(0, "", false), Texts{"a|1|1|2|3"});
  EXPECT_EQ(records(), LogRecords());
}

TEST_F(StorageList, UnopenedStorageListsNothingSilently) {
  put_three();
  storage->opened = false;
  EXPECT_EQ(list(0, "", true), Texts());
  expect_effects({}, {}, {});
}

using StorageFindMatching = Listing;

TEST_F(StorageFindMatching, NameMatchesAPatternAndVersionExactly) {
  put_three();
  EXPECT_EQ(find("*", 0, false), (Texts{kWeekly, kCorlu, kDaily}));
  EXPECT_EQ(find("*", 0, true), (Texts{kWeekly, kDaily}));
  EXPECT_EQ(find("*", kCurrent, true), Texts{kWeekly});
  EXPECT_EQ(find("*", kCurrent + 1, true), Texts());
  EXPECT_EQ(find("w*", 0, true), Texts{kWeekly});
  EXPECT_EQ(find("dail?", 0, true), Texts{kDaily});
  EXPECT_EQ(find("[dw]*", 0, true), (Texts{kWeekly, kDaily}));
  EXPECT_EQ(find("weekl", 0, true), Texts());
  EXPECT_EQ(find("Weekly", 0, true), Texts());
  EXPECT_EQ(records(), LogRecords());
}

TEST_F(StorageFindMatching, NullsHaveTheirOwnValuesAndTimesWrapAt32Bits) {
  put_odd();
  EXPECT_EQ(find("*", 0, true), (Texts{"x|-1|-1|0|0", "far|1|1|-2147483648|1"}));
}

const std::string kFind = "select id, name, type, version, save_time, load_time from 'Config' where ";

TEST_F(StorageFindMatching, RowWithoutANameStopsTheQuery) {
  rearrange(
      "drop table Config; create view Config as select 1 id, 'a' name, 1 type, 1 version, 2 save_time, 3 "
      "load_time union all select 2, null, 1, 1, 2, 3");
  EXPECT_EQ(find("*' or name is null or name='x", 0, false), Texts{"a|1|1|2|3"});
  expect_refused(kFindMatching, "query aborted", kFind + "name glob '*' or name is null or name='x'", 4);
}

TEST_F(StorageFindMatching, RowOfTooFewColumnsStopsTheQuery) {
  EXPECT_EQ(find("x'; select '1", 0, false), Texts());
  expect_refused(kFindMatching, "query aborted", kFind + "name glob 'x'; select '1'", 4);
}

TEST_F(StorageFindMatching, MalformedPatternIsReported) {
  EXPECT_EQ(find("o'hare", 0, true), Texts());
  expect_refused(kFindMatching, "near \"hare\": syntax error",
                 kFind + "name!='corlu-config' and name glob 'o'hare'", 1);
}

}  // namespace
