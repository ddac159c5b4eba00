#include "confsave.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "support/gateway.h"

namespace {

using ConfSave::Config;
using ConfSave::Configs;
using ConfSave::int64;
using test::kCurrent;
using test::LogRecord;
using test::LogRecords;
using Texts = std::vector<std::string>;

LogRecord list_says(const std::string& text, unsigned width) {
  return {2,      "Configs ConfSave::Storage::List(int64, const string&, bool)",
          "List", "source/storage",
          text,   {width}};
}

LogRecord find_says(const std::string& text) {
  return {2,
          "Configs ConfSave::Storage::FindMatching(const string&, int64, bool)",
          "FindMatching",
          "source/storage",
          text,
          {4}};
}

/// name, version, type, save_time, load_time
Texts shown(const Configs& configs) {
  Texts texts;
  for (const Config& config : configs) {
    std::ostringstream text;
    text << config.name << "|" << config.vers << "|" << static_cast<int>(config.type) << "|"
         << config.save_time << "|" << config.load_time;
    texts.push_back(text.str());
  }
  return texts;
}

class Listing : public test::Gateway {
 protected:
  Listing() {
    storage.emplace();
    host.records.clear();
  }
  ~Listing() override { EXPECT_TRUE(test::lock_is_free(database())); }

  void put(const test::RowSpec& row) { test::insert_row(database(), row); }
  void rearrange(const std::string& sql) {
    storage.reset();
    test::Database(database()).run(sql);
    storage.emplace();
    host.records.clear();
  }
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

  std::optional<ConfSave::Storage> storage;
};

const std::string kWeekly = "weekly|17264017408|1|2000|3000";
const std::string kCorlu = "corlu-config|5|3|1000|0";
const std::string kDaily = "daily|0|2|500|0";

const std::string kForeignTable =
    "drop table Config; create table Config (id integer primary key, name, version, type, save_time, "
    "load_time)";

using StorageList = Listing;

TEST_F(StorageList, EveryRowIsListedInOrder) {
  put_three();
  EXPECT_EQ(list(0, "", false), (Texts{kWeekly, kCorlu, kDaily}));
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(StorageList, CorluConfigurationIsLeftOutOnRequest) {
  put_three();
  EXPECT_EQ(list(0, "", true), (Texts{kWeekly, kDaily}));
}

TEST_F(StorageList, VersionIsAnUpperBound) {
  put_three();
  EXPECT_EQ(list(5, "", false), (Texts{kCorlu, kDaily}));
  EXPECT_EQ(list(4, "", false), Texts{kDaily});
  EXPECT_EQ(list(kCurrent, "", true), (Texts{kWeekly, kDaily}));
  EXPECT_EQ(list(kCurrent - 1, "", true), Texts{kDaily});
}

TEST_F(StorageList, OrderIsFollowed) {
  put_three();
  EXPECT_EQ(list(0, "save_time", false), (Texts{kDaily, kCorlu, kWeekly}));
  EXPECT_EQ(list(0, "name desc", true), (Texts{kWeekly, kDaily}));
}

TEST_F(StorageList, PragmaFunctionInTheOrderIsReported) {
  put({"weekly"});
  EXPECT_EQ(list(0, "(select name from pragma_table_info('Config'))", false), Texts());
  EXPECT_EQ(records(),
            (LogRecords{test::says(
                test::kList, 2,
                test::refusal("access to pragma_table_info.name is prohibited",
                              "select name, version, type, save_time, load_time from 'Config' order by "
                              "(select name from pragma_table_info('Config'))",
                              23),
                {4})}));
}

TEST_F(StorageList, UnknownColumnInTheOrderIsReported) {
  put_three();
  EXPECT_EQ(list(0, "nonsense", true), Texts());
  EXPECT_EQ(host.records,
            LogRecords{list_says("SQL error: no such column: nonsense. Query: select name, version, type, "
                                 "save_time, load_time from 'Config' where name!='corlu-config' order by "
                                 "nonsense (return code: 1)",
                                 4)});
}

TEST_F(StorageList, EmptyTableIsLogged) {
  EXPECT_EQ(list(0, "", true), Texts());
  EXPECT_EQ(list(kCurrent, "", true), Texts());
  EXPECT_EQ(host.records,
            (LogRecords{list_says("Requested configuration list is empty (version=0)", 8),
                        list_says("Requested configuration list is empty (version=17264017408)", 8)}));
  host.reset();
  host.log_level = 1;
  EXPECT_EQ(list(0, "", true), Texts());
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(StorageList, StatementIsGoneBeforeItIsToldThatTheListIsEmpty) {
  const test::StatementRecorder recorder;
  ConfSave::Storage traced;
  sqlite3_stmt* open = nullptr;
  bool told = false;
  host.on_recorded = [&] {
    told = true;
    open = sqlite3_next_stmt(recorder.connection(), nullptr);
  };
  EXPECT_TRUE(traced.List(0, "", true).empty());
  EXPECT_TRUE(told);
  EXPECT_EQ(open, nullptr);
}

TEST_F(StorageList, TimesWrapAt32Bits) {
  put({"far", 1, 1, "2147483648", "4294967297"});
  EXPECT_EQ(list(0, "", true), Texts{"far|1|1|-2147483648|1"});
}

TEST_F(StorageList, NullsReadAsZero) {
  rearrange(kForeignTable + "; insert into Config (name) values ('x')");
  EXPECT_EQ(list(0, "", true), Texts{"x|0|0|0|0"});
}

TEST_F(StorageList, RowWithoutANameIsALogicError) {
  rearrange(kForeignTable + "; insert into Config (version) values (1)");
  EXPECT_THROW(storage->List(0, "", false), std::logic_error);
}

TEST_F(StorageList, ErrorWhileSteppingEndsItSilently) {
  rearrange(
      "drop table Config; create view Config as select 'a' name, 1 version, 1 type, 2 save_time, 3 "
      "load_time "
      "union all select 'b', abs(-9223372036854775808), 1, 2, 3");
  EXPECT_EQ(list(0, "", false), Texts{"a|1|1|2|3"});
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(StorageList, UnopenedStorageListsNothingSilently) {
  storage->opened = false;
  test::StatementRecorder recorder;
  EXPECT_EQ(list(0, "", true), Texts());
  EXPECT_EQ(host.records, LogRecords());
}

using StorageFindMatching = Listing;

TEST_F(StorageFindMatching, StarMatchesEveryRow) {
  put_three();
  EXPECT_EQ(find("*", 0, false), (Texts{kWeekly, kCorlu, kDaily}));
  EXPECT_EQ(find("*", 0, true), (Texts{kWeekly, kDaily}));
}

TEST_F(StorageFindMatching, VersionIsMatchedExactly) {
  put_three();
  EXPECT_EQ(find("*", kCurrent, true), Texts{kWeekly});
  EXPECT_EQ(find("*", kCurrent + 1, true), Texts());
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(StorageFindMatching, PatternsAreGlobs) {
  put_three();
  EXPECT_EQ(find("w*", 0, true), Texts{kWeekly});
  EXPECT_EQ(find("dail?", 0, true), Texts{kDaily});
  EXPECT_EQ(find("[dw]*", 0, true), (Texts{kWeekly, kDaily}));
  EXPECT_EQ(find("weekl", 0, true), Texts());
}

TEST_F(StorageFindMatching, LetterCaseCounts) {
  put_three();
  EXPECT_EQ(find("Weekly", 0, true), Texts());
}

TEST_F(StorageFindMatching, TimesWrapAt32Bits) {
  put({"far", 1, 1, "2147483648", "4294967297"});
  EXPECT_EQ(find("far", 0, true), Texts{"far|1|1|-2147483648|1"});
}

TEST_F(StorageFindMatching, NullsHaveTheirOwnValues) {
  rearrange(kForeignTable + "; insert into Config (name) values ('x')");
  EXPECT_EQ(find("x", 0, true), Texts{"x|-1|-1|0|0"});
}

TEST_F(StorageFindMatching, RowWithoutANameStopsTheQuery) {
  rearrange(
      "drop table Config; create view Config as select 1 id, 'a' name, 1 type, 1 version, 2 save_time, 3 "
      "load_time union all select 2, null, 1, 1, 2, 3");
  EXPECT_EQ(find("*' or name is null or name='x", 0, false), Texts{"a|1|1|2|3"});
  EXPECT_EQ(host.records, LogRecords{find_says(
                              "SQL error: query aborted. Query: select id, name, type, version, save_time, "
                              "load_time from 'Config' where name glob '*' or name is null or name='x' "
                              "(return code: 4)")});
}

TEST_F(StorageFindMatching, RowOfTooFewColumnsStopsTheQuery) {
  EXPECT_EQ(find("x'; select '1", 0, false), Texts());
  EXPECT_EQ(host.records, LogRecords{find_says(
                              "SQL error: query aborted. Query: select id, name, type, version, save_time, "
                              "load_time from 'Config' where name glob 'x'; select '1' (return code: 4)")});
}

TEST_F(StorageFindMatching, MalformedPatternIsReported) {
  EXPECT_EQ(find("o'hare", 0, true), Texts());
  EXPECT_EQ(
      host.records,
      LogRecords{find_says("SQL error: near \"hare\": syntax error. Query: select id, name, type, version, "
                           "save_time, load_time from 'Config' where name!='corlu-config' and name glob "
                           "'o'hare' (return code: 1)")});
}

}  // namespace
