// CleanAutosaves(), and AutoSave() for each limit.

#include "support/autosaves.h"

namespace {

using namespace ConfSave;
using namespace test;

const Texts kThree{"autosave-1", "autosave-2", "autosave-3"};

struct Cleaning : Autosaves {
  /// Statements and records are those of the cleaning alone.
  void clean(unsigned limit) {
    run([&] {
      Storage storage;
      forget();
      CleanAutosaves(storage, limit);
    });
  }
};

/// The stored names, the limit, the record about both, and the names that are deleted and left.
struct Limit {
  std::string name;
  Texts stored;
  unsigned limit;
  std::string counted;
  Texts deleted;
  Texts left;
};

void PrintTo(const Limit& row, std::ostream* out) { *out << row.name; }

struct AutosaveLimit : Cleaning, testing::WithParamInterface<Limit> {};

TEST_P(AutosaveLimit, SelectsTheSurplusThatIsDeletedFirst) {
  Texts expected_statements{kFindAutosaves};
  LogRecords expected_records{cleaning(GetParam().counted)};
  SystemLog lines;
  for (const std::string& name : GetParam().deleted) {
    expected_statements.push_back(delete_of(name));
    expected_records.push_back(deleting(name));
    lines.emplace_back(6, "Deleted old confsave '" + name + "' (version 4.5.4)");
  }
  make_table();
  put_names(GetParam().stored);
  autosave(GetParam().limit);
  EXPECT_EQ(statements(), expected_statements + saving("autosave-<now>"));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade} + expected_records +
                        saved_as("autosave-<now>", GetParam().deleted.size() + 1)));
  EXPECT_EQ(system_log(), lines);
  EXPECT_EQ(names(), GetParam().left + Texts{"autosave-<now>"});
}

const Texts kFour{"autosave-1", "autosave-2", "autosave-3", "autosave-4"};
const Texts kWords{"autosave", "autosave-%s%n%d", "autosave-manual", "autosaveX"};
const Texts kOthers{"Autosave-1", "AUTOSAVE-1", "my-autosave", " autosave", "autosav", "autosav-1",
                    "weekly",     "",           "corlu-config"};
const std::vector<Limit> kLimits{
    {"EmptyStorageAndLimit0", {}, 0, "maxautosaves = 0, find autosaves = 0", {}, {}},
    {"BelowTheLimit", kThree, 5, "maxautosaves = 5, find autosaves = 3", {}, kThree},
    {"AtTheLimit",
     kThree,
     3,
     "maxautosaves = 3, find autosaves = 3",
     {"autosave-1"},
     {"autosave-2", "autosave-3"}},
    {"AboveTheLimit",
     kFour,
     3,
     "maxautosaves = 3, find autosaves = 4",
     {"autosave-1", "autosave-2"},
     {"autosave-3", "autosave-4"}},
    {"Limit1", kThree, 1, "maxautosaves = 1, find autosaves = 3", kThree, {}},
    {"Limit0", kThree, 0, "maxautosaves = 0, find autosaves = 3", kThree, {}},
    // Four bytes, all set, which the host of the tests reads as a signed number.
    {"GreatestLimit", kThree, 4294967295, "maxautosaves = -1, find autosaves = 3", {}, kThree},
    {"NamesThatBeginWithAutosave", kWords, 1, "maxautosaves = 1, find autosaves = 4", kWords, {}},
    {"OtherNames", kOthers, 1, "maxautosaves = 1, find autosaves = 0", {}, kOthers},
};
INSTANTIATE_TEST_SUITE_P(Each, AutosaveLimit, testing::ValuesIn(kLimits), by_name);

TEST_F(Cleaning, DeletesInTheOrderOfTheMatches) {
  // Neither the times nor the ids of the rows matter.
  put({"autosave-2017-03-02-00-00-00", kCurrent, 1, "10"});
  put({"autosave-2017-03-03-00-00-00", kCurrent, 1, "20"});
  put({"autosave-2017-03-01-00-00-00", kCurrent, 1, "30"});
  const Rows order = query(kFindAutosaves);
  clean(2);
  EXPECT_EQ(system_log(), (SystemLog{deleted(order[0][1]), deleted(order[1][1])}));
  EXPECT_EQ(names(), Texts{order[2][1]});
}

TEST_F(Cleaning, OtherVersionsCountAndAreDeletedByTheirNumber) {
  put({"autosave-1", 0});
  put({"autosave-2", 17230397439});
  put({"autosave-3", -1});
  put({"autosave-4", kCurrent});
  clean(2);
  EXPECT_EQ(statements(), (Texts{kFindAutosaves, delete_of("autosave-1", "0"),
                                 delete_of("autosave-2", "17230397439"), delete_of("autosave-3", "-1")}));
  EXPECT_EQ(system_log(), (SystemLog{deleted("autosave-1", ""), deleted("autosave-2", "4.3.2"),
                                     deleted("autosave-3", "-1.255.255")}));
  EXPECT_EQ(rows(), (Rows{{"autosave-4", kCurrentText, "1", "1000", "NULL"}}));
}

TEST_F(Cleaning, RefusedDeleteIsLoggedAsADeletion) {
  put_names(kThree);
  keep_all_rows();
  clean(3);
  EXPECT_EQ(records(), (LogRecords{cleaning("maxautosaves = 3, find autosaves = 3"), deleting("autosave-1"),
                                   says(kDelete, 2, refusal("kept", delete_of("autosave-1"), 19), {4})}));
  EXPECT_EQ(system_log(), (SystemLog{deleted("autosave-1")}));
  EXPECT_EQ(names(), kThree);
}

TEST_F(Cleaning, FailureOfEachDeletionIsLoggedAndTheLoopGoesOn) {
  put({"autosave-1", kCurrent});
  put({"autosave-2", 0});
  put({"autosave-3", 17230397439});
  host.on_system_log = throwing(std::runtime_error("no system log"));
  clean(1);
  EXPECT_EQ(records(),
            (LogRecords{cleaning("maxautosaves = 1, find autosaves = 3"), deleting("autosave-1"),
                        undeleted("autosave-1"), deleting("autosave-2"), undeleted("autosave-2", ""),
                        deleting("autosave-3"), undeleted("autosave-3", "4.3.2")}));
  EXPECT_EQ(system_log(),
            (SystemLog{deleted("autosave-1"), deleted("autosave-2", ""), deleted("autosave-3", "4.3.2")}));
  EXPECT_EQ(names(), Texts());
}

TEST_F(Cleaning, ExceptionOfADeleteIsLoggedAndTheLoopGoesOn) {
  for (const Thrown& row : every_exception()) {
    std::filesystem::remove(database());
    put_names(kThree);
    fail_in_log("Delete", row.raise);
    clean(2);
    EXPECT_EQ(records(), (LogRecords{cleaning("maxautosaves = 2, find autosaves = 3"),
                                     undeleted("autosave-1"), deleting("autosave-2")}))
        << row.name;
    EXPECT_EQ(system_log(), (SystemLog{deleted("autosave-2")}));
    EXPECT_EQ(names(), (Texts{"autosave-1", "autosave-3"}));
  }
}

}  // namespace
