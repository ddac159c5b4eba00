// The names of autosaves, and CheckOld().

#include "autosave.h"

#include <cstdint>

#include "support/autosaves.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

/// Central Europe, its rule spelled out.
constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";

struct NamedTime {
  const char* zone;
  std::time_t time;
  std::string name;
};

const std::vector<NamedTime> kTimes{
    {"UTC", 1488377109, "autosave-2017-03-01-14-05-09"},
    {"UTC", -1, "autosave-1969-12-31-23-59-59"},
    {"IST-5:30", 1488377109, "autosave-2017-03-01-19-35-09"},
    {"<-12>12", 1488377109, "autosave-2017-03-01-02-05-09"},
    {"<+14>-14", 1483178399, "autosave-2016-12-31-23-59-59"},
    {"<+14>-14", 1483178400, "autosave-2017-01-01-00-00-00"},
    // The hour that spring skips, and the one that autumn repeats.
    {kBerlin, 1490489999, "autosave-2017-03-26-01-59-59"},
    {kBerlin, 1490490000, "autosave-2017-03-26-03-00-00"},
    {kBerlin, 1509235200, "autosave-2017-10-29-02-00-00"},
    {kBerlin, 1509238800, "autosave-2017-10-29-02-00-00"},
    {"UTC", 253402300800, "autosave-10000-01-01-00-00-00"},
    {"UTC", 67767976233532799, "autosave-2147483647-12-31-23-59-59"},
    {"UTC", -67768040609740800, "autosave--2147481748-01-01-00-00-00"},
    // Without a calendar date.
    {"UTC", 67768036191676800, "autosave-67768036191676800"},
    {"UTC", INT64_MIN, "autosave--9223372036854775808"},
};

TEST(AutosaveName, IsTheLocalDateAndTime) {
  const GroupedDigits grouped;
  for (const NamedTime& row : kTimes) {
    set_zone(row.zone);
    EXPECT_EQ(autosave_name(row.time), row.name) << row.zone << " " << row.time;
  }
  set_zone("UTC");
}

bool is_old(int64 saved, int64 now, const std::string& name = "autosave-1") {
  Config config(kCurrent);
  config.name = name;
  config.save_time = saved;
  return is_old_autosave(config, now);
}

TEST(IsOldAutosave, AfterMoreThan31Days) {
  EXPECT_FALSE(is_old(1488377109, 1488377109));
  EXPECT_FALSE(is_old(1488377109, 1491055509));
  EXPECT_TRUE(is_old(1488377109, 1491055510));
  EXPECT_FALSE(is_old(INT64_MAX, 1488377109));
  EXPECT_TRUE(is_old(INT64_MIN, 1488377109));
  EXPECT_FALSE(is_old(-2678400, 0));
  EXPECT_TRUE(is_old(-2678401, 0));
  EXPECT_TRUE(is_old(9223372036852097406, INT64_MAX));
  EXPECT_FALSE(is_old(9223372036852097407, INT64_MAX));
}

TEST(IsOldAutosave, IfTheNameBeginsWithAutosave) {
  for (const std::string name :
       {"autosave", "autosaveX", "autosave-manual", "autosave-2017-01-01-00-00-00"}) {
    EXPECT_TRUE(is_old(0, 1488377109, name)) << name;
  }
  for (const std::string name :
       {"", "a", "autosav", "Autosave-1", "AUTOSAVE", "my-autosave", " autosave", "weekly"}) {
    EXPECT_FALSE(is_old(0, 1488377109, name)) << name;
  }
}

using OldCheck = Autosaves;

const Function kCheckOld{"bool ConfSave::CheckOld()", "CheckOld", "source/freefunc"};
const LogRecord kUnknownException = says(kCheckOld, 1, "unknown exception raised!");

TEST_F(OldCheck, FindsAnOldAutosaveAndChangesNothing) {
  put({"autosave-1", kCurrent, 1, "1000", "2000"});
  EXPECT_TRUE(check_old());
  EXPECT_EQ(statements(), (Texts{"select name, version, type, save_time, load_time from 'Config' where "
                                 "name!='corlu-config'"}));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade}));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(system_log(), SystemLog());
  EXPECT_EQ(rows(), (Rows{{"autosave-1", kCurrentText, "1", "1000", "2000"}}));
}

TEST_F(OldCheck, NameMustBeginWithAutosave) {
  put({"weekly", kCurrent});
  put({"my-autosave", kCurrent});
  put({"corlu-config", kCurrent});
  EXPECT_FALSE(check_old());
  put({"autosave-manual", -1, 1, "NULL"});
  EXPECT_TRUE(check_old());
}

TEST_F(OldCheck, TimesFrom2038OnLookOld) {
  put({"autosave-1", kCurrent, 1, "2147483647"});
  EXPECT_FALSE(check_old());
  put({"autosave-2", kCurrent, 1, "2147483648"});
  EXPECT_TRUE(check_old());
}

TEST_F(OldCheck, FindsNothingInAnUnopenableStorage) {
  make_storage_unopenable();
  EXPECT_FALSE(check_old());
  EXPECT_EQ(records(), LogRecords{kCannotOpen});
}

TEST_F(OldCheck, FindsNothingInAnUnreadableTable) {
  make_foreign_table();
  EXPECT_FALSE(check_old());
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade,
                                   says(kList, 2, refusal("no such column: name", kSelectAll, 1), {4})}));
}

struct OldCheckException : Autosaves, testing::WithParamInterface<Thrown> {};

TEST_P(OldCheckException, OfTheListIsLogged) {
  make_table();
  fail_in_log("List", GetParam().raise);
  EXPECT_FALSE(check_old());
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, kUnknownException}));
}

TEST_P(OldCheckException, OfTheOpeningIsLogged) {
  put({"autosave-1", kCurrent});
  fail_in_log("Storage", GetParam().raise);
  EXPECT_FALSE(check_old());
  EXPECT_EQ(records(), LogRecords{kUnknownException});
  EXPECT_EQ(statements(), Texts());
}

TEST_P(OldCheckException, OfEveryRecordIsIgnored) {
  put({"autosave-1", kCurrent});
  host.on_record = [](const std::string&) { GetParam().raise(); };
  EXPECT_FALSE(check_old());
  EXPECT_EQ(records(), LogRecords());
}

INSTANTIATE_TEST_SUITE_P(Each, OldCheckException, testing::ValuesIn(every_exception()), by_name);

}  // namespace
