// save_if_unique() and AutoSave().

#include "autosave.h"

#include "support/autosaves.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

namespace fs = std::filesystem;

struct SaveIfUnique : Autosaves {
  /// Statements and records are those of the saving alone.
  bool save_unique(const std::string& name) {
    bool saved = false;
    run([&] {
      Storage storage;
      forget();
      saved = save_if_unique(storage, name, conf_full);
    });
    return saved;
  }
};

TEST_F(SaveIfUnique, FreeNameIsStored) {
  put({"weekly", 0});
  put({"weekly", kCurrent + 1});
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(statements(),
            (Texts{"select count(*) from 'Config' where name='weekly' and version=17264017408",
                   "delete from 'Config' where name='weekly' and version=17264017408",
                   "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                   "('weekly',?,?,17264017408,<now>,1)"}));
  EXPECT_EQ(records(), saved_as("weekly", 1));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(rows(), (Rows{{"weekly", "0", "1", "1000", "NULL"},
                          {"weekly", "17264017409", "1", "1000", "NULL"},
                          {"weekly", kCurrentText, "1", "<now>", "NULL"}}));
}

TEST_F(SaveIfUnique, TakenNameStaysUnchanged) {
  put({"weekly", kCurrent, 2, "1000", "2000"});
  EXPECT_FALSE(save_unique("weekly"));
  EXPECT_EQ(statements(), Texts{count_of("weekly")});
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(rows(), (Rows{{"weekly", kCurrentText, "2", "1000", "2000"}}));
}

TEST_F(SaveIfUnique, UnopenableStorageCountsAsSaved) {
  make_storage_unopenable();
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(records(), LogRecords{saved("weekly")});
  EXPECT_EQ(commands(), Texts());
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

using Autosaving = Autosaves;

TEST_F(Autosaving, TypeSelectsTheContents) {
  autosave(5, conf_part);
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart}));
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", kCurrentText, "2", "<now>", "NULL"}}));
}

TEST_F(Autosaving, NameIsTheTimeBeforeTheOpening) {
  pack_nothing();
  host.on_record = [](const std::string& function) {
    if (function == "Storage") set_zone("XYZ-5");
  };
  autosave(5);
  set_zone("UTC");
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, FirstArgumentHasNoEffect) {
  for (const std::string name : {"", "weekly", "o'hare", "autosave-1", "%s"}) {
    fs::remove(database());
    autosave(5, conf_full, name);
    EXPECT_EQ(statements(),
              (Texts{kPageSize, kAutoVacuum, kCreateTable, kFindAutosaves} + saving("autosave-<now>")));
    EXPECT_EQ(rows(), (Rows{{"autosave-<now>", kCurrentText, "1", "<now>", "NULL"}}));
  }
}

TEST_F(Autosaving, FirstFreeNumberIsTaken) {
  pack_nothing();
  in_one_second(
      [this](std::time_t, const std::string& name) {
        put_names({name, name + "-0", name + "-1", name + "-3"});
        put({name + "-2", 0});
      },
      [] { AutoSave("", conf_full, 10); });
  EXPECT_EQ(statements(), (Texts{kFindAutosaves, count_of("autosave-<now>"), count_of("autosave-<now>-0"),
                                 count_of("autosave-<now>-1")} +
                           saving("autosave-<now>-2")));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade, cleaning("maxautosaves = 10, find autosaves = 5")} +
             saved_as("autosave-<now>-2", 1)));
  EXPECT_EQ(rows().back(), (Texts{"autosave-<now>-2", kCurrentText, "1", "<now>", "NULL"}));
}

TEST_F(Autosaving, NameIsUsedAgainAtTheLimit) {
  pack_nothing();
  in_one_second([](std::time_t, const std::string&) {},
                [] {
                  for (int i = 0; i < 4; ++i) AutoSave("", conf_full, 3);
                });
  EXPECT_EQ(names(), (Texts{"autosave-<now>-0", "autosave-<now>-1", "autosave-<now>"}));
}

TEST_F(Autosaving, Limit0HasNoNumbers) {
  in_one_second(
      [this](std::time_t, const std::string& name) {
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
      [this](std::time_t, const std::string& name) {
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

TEST_F(Autosaving, NumbersHaveNoDigitGroups) {
  pack_nothing();
  const GroupedDigits grouped;
  in_one_second(
      [this](std::time_t, const std::string& name) {
        put_names({name});
        sql("with recursive n(i) as (select 0 union all select i + 1 from n where i < 999) insert into "
            "Config (name, version) select '" +
            name + "-' || i, 17264017408 from n");
      },
      [] { AutoSave("", conf_full, 4294967295); });
  EXPECT_EQ(names().size(), 1002U);
  EXPECT_EQ(names().back(), "autosave-<now>-1000");
}

struct AutosavingFailure : Autosaves {
  /// Checks what an autosave throws.
  void expect_thrown(unsigned limit, const std::string& text) {
    run([&] { EXPECT_EQ(thrown([limit] { AutoSave("", conf_full, limit); }), text); });
  }
};

TEST_F(AutosavingFailure, OfTarPropagatesAfterTheSurplusIsDeleted) {
  put_names({"autosave-1", "autosave-2", "autosave-3"});
  host.on_command = fail_commands("cd /mnt/main/etc/ ", 7);
  expect_thrown(2, "ConfSave::XExternalFailure 36: ");
  EXPECT_EQ(statements(), (Texts{kFindAutosaves, delete_of("autosave-1"), delete_of("autosave-2"),
                                 count_of("autosave-<now>"), delete_of("autosave-<now>")}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade, cleaning("maxautosaves = 2, find autosaves = 3"),
                        deleting("autosave-1"), deleting("autosave-2"), deleting("autosave-<now>"),
                        says(kPack, 1, "failed to create tar archive with error code: 7", {4})}));
  EXPECT_EQ(system_log(), (SystemLog{deleted("autosave-1"), deleted("autosave-2")}));
  EXPECT_EQ(names(), Texts{"autosave-3"});
}

TEST_F(AutosavingFailure, OfReadingTheTableIsSilentAndStoresNothing) {
  make_foreign_table();
  autosave(2);
  const auto unread = [](const std::string& name) {
    return says(kExists, 2, refusal("no such column: name", count_of(name), 1), {4});
  };
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kFindMatching, 2, refusal("no such column: id", kFindAutosaves, 1), {4}),
                        cleaning("maxautosaves = 2, find autosaves = 0"), unread("autosave-<now>"),
                        unread("autosave-<now>-0"), unread("autosave-<now>-1")}));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(system_log(), SystemLog());
}

TEST_F(AutosavingFailure, OfTheOpeningIsLoggedAsASuccess) {
  make_storage_unopenable();
  autosave(5);
  EXPECT_EQ(records(),
            (LogRecords{kCannotOpen, says(kFindMatching, 2, refusal("", kFindAutosaves, 21), {4}),
                        cleaning("maxautosaves = 5, find autosaves = 0"), saved("autosave-<now>")}));
  EXPECT_EQ(commands(), Texts());
}

struct AutosavingException : AutosavingFailure, testing::WithParamInterface<Thrown> {};

TEST_P(AutosavingException, Propagates) {
  make_table();
  for (const std::string function : {"Storage", "Delete"}) {
    fail_in_log(function, GetParam().raise);
    expect_thrown(5, GetParam().text);
  }
  EXPECT_EQ(statements(), (Texts{kFindAutosaves, count_of("autosave-<now>")}));
  host.on_record = nullptr;
  fail_at(1, GetParam().raise);
  expect_thrown(5, GetParam().text);
  EXPECT_EQ(rows(), Rows());
}

INSTANTIATE_TEST_SUITE_P(Each, AutosavingException, testing::ValuesIn(every_exception()), by_name);

}  // namespace
