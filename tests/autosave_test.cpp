// save_if_unique() and AutoSave().

#include "autosave.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>

#include "confsave.h"
#include "support/autosaves.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

namespace fs = std::filesystem;

// ---------------------------------------------------------------------------------------------------
// save_if_unique

class SaveIfUnique : public Autosaves {
 protected:
  /// Statements and records are those of the saving alone.
  bool save_unique(const std::string& name, conftype type = conf_full) {
    bool saved = false;
    run([&] {
      Storage storage;
      forget();
      saved = save_if_unique(storage, name, type);
    });
    return saved;
  }
};

TEST_F(SaveIfUnique, FreeNameIsStored) {
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(statements(),
            (Texts{"select count(*) from 'Config' where name='weekly' and version=17264017408",
                   "delete from 'Config' where name='weekly' and version=17264017408",
                   "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                   "('weekly',?,?,17264017408,<now>,1)"}));
  EXPECT_EQ(records(), saved_as("weekly", 1));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(rows(), (Rows{{"weekly", kCurrentText, "1", "<now>", "NULL"}}));
}

TEST_F(SaveIfUnique, TakenNameStaysUnchanged) {
  put({"weekly", kCurrent, 2, "1000", "2000"});
  EXPECT_FALSE(save_unique("weekly"));
  EXPECT_EQ(statements(), Texts{count_of("weekly")});
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(rows(), (Rows{{"weekly", kCurrentText, "2", "1000", "2000"}}));
}

TEST_F(SaveIfUnique, AnotherVersionDoesNotTakeTheName) {
  put({"weekly", 0});
  put({"weekly", kCurrent + 1});
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(rows(), (Rows{{"weekly", "0", "1", "1000", "NULL"},
                          {"weekly", "17264017409", "1", "1000", "NULL"},
                          {"weekly", kCurrentText, "1", "<now>", "NULL"}}));
}

TEST_F(SaveIfUnique, TypeSelectsTheContents) {
  EXPECT_TRUE(save_unique("part", conf_part));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart}));
  EXPECT_TRUE(save_unique("corlu", conf_corlu));
  EXPECT_EQ(commands(), Texts{kPackCorlu});
  EXPECT_EQ(rows(), (Rows{{"part", kCurrentText, "2", "<now>", "NULL"},
                          {"corlu", kCurrentText, "3", "<now>", "NULL"}}));
}

TEST_F(SaveIfUnique, SuccessIsLoggedOnlyAtLevel4) {
  for (const int level : {0, 1, 2, 3}) {
    host.log_level = level;
    EXPECT_TRUE(save_unique("level" + std::to_string(level)));
    for (const LogRecord& record : host.records) EXPECT_EQ(record.name, "Create") << record;
  }
}

TEST_F(SaveIfUnique, UnreadableTableCountsAsHoldingTheName) {
  bool saved = true;
  run([&] {
    Storage storage;
    sql("drop table Config");
    forget();
    saved = save_if_unique(storage, "weekly", conf_full);
  });
  EXPECT_FALSE(saved);
  EXPECT_EQ(records(),
            (LogRecords{says(kExists, 2, refusal("no such table: Config", count_of("weekly"), 1), {4})}));
  EXPECT_EQ(commands(), Texts());
}

TEST_F(SaveIfUnique, UnopenableStorageCountsAsSaved) {
  make_storage_unopenable();
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(records(), LogRecords{saved("weekly")});
  EXPECT_EQ(commands(), Texts());
}

TEST_F(SaveIfUnique, RefusedInsertCountsAsSaved) {
  make_table();
  sql("create trigger no before insert on Config begin select raise(fail, 'full'); end");
  EXPECT_THROW(save_unique("weekly"), XConstraint);
  sql("drop trigger no");
  sql("alter table Config rename column type to kind");
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(records(),
            (LogRecords{deleting("weekly"),
                        says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017408)", {8}),
                        says(kCreate, 2,
                             refusal("table Config has no column named type", insert_of("weekly"), 1), {4}),
                        says(kCreate, 1, "Error: sqlite3_stmt *plineInfo == NULL"), saved("weekly")}));
}

TEST_F(SaveIfUnique, TarFailurePropagates) {
  host.on_command = fail_commands("cd /mnt/main/etc/ ", 7);
  EXPECT_EQ(thrown([this] { save_unique("weekly"); }), "ConfSave::XExternalFailure 36: ");
  EXPECT_EQ(rows(), Rows());
}

TEST_F(SaveIfUnique, XConstraintPropagatesIfTheNameIsTakenMeanwhile) {
  host.on_command = [this](const std::string&) -> std::optional<int> {
    if (host.commands.size() == 2) put({"weekly", kCurrent, 2});
    return std::nullopt;
  };
  EXPECT_EQ(thrown([this] { save_unique("weekly"); }),
            "ConfSave::XConstraint 0: Configuration 'weekly' (version 4.5.4) already exists");
  EXPECT_EQ(rows(), (Rows{{"weekly", kCurrentText, "2", "1000", "NULL"}}));
}

// ---------------------------------------------------------------------------------------------------
// AutoSave

using Autosaving = Autosaves;

TEST_F(Autosaving, FirstOneIsStoredUnderTheTime) {
  autosave(5);
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, kFindAutosaves} + saving("autosave-<now>")));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade, cleaning("maxautosaves = 5, find autosaves = 0")} +
             saved_as("autosave-<now>", 1)));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(system_log(), SystemLog());
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", kCurrentText, "1", "<now>", "NULL"}}));
}

TEST_F(Autosaving, LimitHoldsFromRunToRun) {
  pack_nothing();
  put_names({"autosave-1", "autosave-2"});
  for (int run = 0; run < 12; ++run) autosave(10);
  EXPECT_EQ(names().size(), 10U);
}

TEST_F(Autosaving, TypeSelectsTheContents) {
  autosave(5, conf_part);
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart}));
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", kCurrentText, "2", "<now>", "NULL"}}));
  fs::remove(database());
  autosave(5, conf_corlu);
  EXPECT_EQ(commands(), Texts{kPackCorlu});
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", kCurrentText, "3", "<now>", "NULL"}}));
}

TEST_F(Autosaving, NameIsTheLocalTime) {
  setenv("TZ", "<+1345>-13:45", 1);
  zone = 13 * 3600 + 45 * 60;
  autosave(5);
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, NameIsTheTimeBeforeTheOpening) {
  pack_nothing();
  host.on_record = [](const std::string& function) {
    if (function != "Storage") return;
    setenv("TZ", "XYZ-5", 1);
    tzset();
  };
  autosave(5);
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, FirstArgumentHasNoEffect) {
  for (const std::string name : {"", "weekly", "o'hare", "autosave-1", "%s"}) {
    fs::remove(database());
    autosave(5, conf_full, name);
    EXPECT_EQ(statements(),
              (Texts{kChooseLayout, kCreateTable, kFindAutosaves} + saving("autosave-<now>")));
    EXPECT_EQ(rows(), (Rows{{"autosave-<now>", kCurrentText, "1", "<now>", "NULL"}}));
  }
}

TEST_F(Autosaving, OtherConfigurationsStayUnchanged) {
  put_names({"weekly", "Autosave-1", "my-autosave", "corlu-config", "autosave-manual"});
  put({"weekly", 0});
  autosave(1);
  EXPECT_EQ(rows(), (Rows{{"weekly", kCurrentText, "1", "1000", "NULL"},
                          {"Autosave-1", kCurrentText, "1", "1000", "NULL"},
                          {"my-autosave", kCurrentText, "1", "1000", "NULL"},
                          {"corlu-config", kCurrentText, "1", "1000", "NULL"},
                          {"weekly", "0", "1", "1000", "NULL"},
                          {"autosave-<now>", kCurrentText, "1", "<now>", "NULL"}}));
}

TEST_F(Autosaving, WaitsForAnotherProcess) {
  put_names({"autosave-1"});
  const LockHolder other(database(), 300);
  AutoSave("", conf_full, 1);
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, EachNumberIsTriedInTurn) {
  in_one_second([](const std::string&) {},
                [] {
                  for (int i = 0; i < 3; ++i) AutoSave("", conf_full, 10);
                });
  EXPECT_EQ(statements(), (Texts{kFindAutosaves} + saving("autosave-<now>") +
                           Texts{kFindAutosaves, count_of("autosave-<now>")} + saving("autosave-<now>-0") +
                           Texts{kFindAutosaves, count_of("autosave-<now>"), count_of("autosave-<now>-0")} +
                           saving("autosave-<now>-1")));
  EXPECT_EQ(records().back(), saved("autosave-<now>-1"));
  EXPECT_EQ(names(), (Texts{"autosave-<now>", "autosave-<now>-0", "autosave-<now>-1"}));
}

TEST_F(Autosaving, FirstFreeNumberIsTaken) {
  pack_nothing();
  in_one_second(
      [this](const std::string& name) {
        put_names({name, name + "-0", name + "-1", name + "-3"});
      },
      [] { AutoSave("", conf_full, 10); });
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade, cleaning("maxautosaves = 10, find autosaves = 4")} +
             saved_as("autosave-<now>-2", 1)));
  EXPECT_EQ(names(), (Texts{"autosave-<now>", "autosave-<now>-0", "autosave-<now>-1", "autosave-<now>-3",
                            "autosave-<now>-2"}));
}

TEST_F(Autosaving, NameIsUsedAgainAtTheLimit) {
  pack_nothing();
  in_one_second([](const std::string&) {},
                [] {
                  for (int i = 0; i < 4; ++i) AutoSave("", conf_full, 3);
                });
  EXPECT_EQ(names(), (Texts{"autosave-<now>-0", "autosave-<now>-1", "autosave-<now>"}));
}

TEST_F(Autosaving, NameIsUsedAgainAtLimit1) {
  pack_nothing();
  in_one_second([](const std::string&) {},
                [] {
                  AutoSave("", conf_full, 1);
                  AutoSave("", conf_part, 1);
                });
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", kCurrentText, "2", "<now>", "NULL"}}));
  EXPECT_EQ(system_log(), (SystemLog{deleted("autosave-<now>")}));
}

TEST_F(Autosaving, Limit0HasNoNumbers) {
  in_one_second(
      [this](const std::string& name) {
        put_names({name});
        keep_all_rows();
      },
      [] { AutoSave("", conf_full, 0); });
  EXPECT_EQ(statements().back(), count_of("autosave-<now>"));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", kCurrentText, "1", "1000", "NULL"}}));
}

TEST_F(Autosaving, NumbersEndBelowTheLimit) {
  const Texts all{"autosave-<now>", "autosave-<now>-0", "autosave-<now>-1", "autosave-<now>-2"};
  in_one_second(
      [this](const std::string& name) {
        put_names({name, name + "-0", name + "-1", name + "-2"});
        keep_all_rows();
      },
      [this] {
        host.log_level = 1;
        AutoSave("", conf_full, 3);
      });
  const Texts run = statements();
  EXPECT_EQ(Texts(run.end() - 4, run.end()),
            (Texts{count_of(all[0]), count_of(all[1]), count_of(all[2]), count_of(all[3])}));
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(names(), all);
}

TEST_F(Autosaving, LastNumberIsOneLessThanTheLimit) {
  pack_nothing();
  in_one_second(
      [this](const std::string& name) {
        put_names({name, name + "-0", name + "-1"});
        keep_all_rows();
      },
      [] { AutoSave("", conf_full, 3); });
  EXPECT_EQ(names().back(), "autosave-<now>-2");
}

TEST_F(Autosaving, NumbersHaveNoDigitGroups) {
  pack_nothing();
  const GroupedDigits grouped;
  in_one_second(
      [this](const std::string& name) {
        put_names({name});
        sql("with recursive n(i) as (select 0 union all select i + 1 from n where i < 999) insert into "
            "Config (name, version) select '" +
            name + "-' || i, 17264017408 from n");
      },
      [] { AutoSave("", conf_full, 4294967295); });
  EXPECT_EQ(names().size(), 1002U);
  EXPECT_EQ(names().back(), "autosave-<now>-1000");
}

TEST_F(Autosaving, AnotherVersionDoesNotTakeTheName) {
  pack_nothing();
  in_one_second(
      [this](const std::string& name) {
        put({name, 0});
        put({name, kCurrent + 1});
      },
      [] { AutoSave("", conf_full, 10); });
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", "0", "1", "1000", "NULL"},
                          {"autosave-<now>", "17264017409", "1", "1000", "NULL"},
                          {"autosave-<now>", kCurrentText, "1", "<now>", "NULL"}}));
}

TEST_F(Autosaving, XConstraintPropagatesIfTheNameIsTakenMeanwhile) {
  host.on_command = [this](const std::string&) -> std::optional<int> {
    if (host.commands.size() == 2) sql("update Config set name = replace(name, 'other', 'autosave')");
    return std::nullopt;
  };
  in_one_second(
      [this](const std::string& name) {
        put_names({std::regex_replace(name, std::regex("autosave"), "other")});
      },
      [] { EXPECT_THROW(AutoSave("", conf_full, 5), XConstraint); });
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", kCurrentText, "1", "1000", "NULL"}}));
}

}  // namespace
