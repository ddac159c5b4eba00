// App::load.

#include "confsave.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/app_load.h"

namespace {

using namespace ConfSave;
using namespace test;

const Texts kUnpackAll{
    "tar xzf <archive> --exclude corlu.serv -C /mnt/main/etc//<scratch> 2>/dev/null",
    "cp -alf /mnt/main/etc//<scratch>/* /mnt/main/etc//. 2>/dev/null",
    "rm -rf /mnt/main/etc//<scratch> 2>/dev/null",
    "tar xzf <archive> --exclude corlu.serv -C <root>/config//<scratch> 2>/dev/null",
    "cp -alf <root>/config//<scratch>/* <root>/config//. 2>/dev/null",
    "rm -rf <root>/config//<scratch> 2>/dev/null",
};

const LogRecord kTryToSave = says(kCreate, 2, "Try to save configuration 'before' (version 0)", {8});

LogRecord changes(const Function& function, int count) {
  return says(function, 4, "sqlite3_total_changes: " + std::to_string(count), {4});
}

TEST_F(AppLoad, PhraseRestores) {
  put_snapshot();
  const Tree before = gateway();
  EXPECT_EQ(load("n\nYes, do as I say\n"),
            "Save current configuration [Y/n]? ‹n›\n"
            "You are about to overwrite your existing configuration.\n"
            "This is unsafe. To continue, type \n"
            ">>> Yes, do as I say\n"
            "in response to the prompt:\n"
            ">>> ‹Yes, do as I say›\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(statements(), (Texts{"select keybase, etc, type, id from 'Config' where name!='corlu-config' "
                                 "and name='weekly' and version=0",
                                 "update 'Config' set load_time=<now> where id=1"}));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, kTryToLoad, bytes(), changes(kLoad, 1)}));
  EXPECT_EQ(commands(), kUnpackAll);
  EXPECT_EQ(gateway(), restored(before));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}}));
}

TEST_F(AppLoad, SavesFirstByDefault) {
  put_snapshot();
  const Tree before = gateway();
  EXPECT_EQ(load("\nbefore\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(statements(), (Texts{kInsertBefore, kSelectWeekly, stamp_of("1")}));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, kTryToSave, changes(kCreate, 1), kTryToLoad,
                                   bytes(), changes(kLoad, 2)}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull} + kUnpackAll));
  EXPECT_EQ(gateway(), restored(before));
  EXPECT_EQ(rows(),
            (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}, {"2", "before", "0", "1", "<now>", "NULL"}}));
  EXPECT_EQ(load(kRecklessly, "before"), kReckless + "Loading configuration 'before'.\n");
  EXPECT_EQ(gateway(), before);
}

TEST_F(AppLoad, YOverwritesATakenName) {
  put_snapshot();
  put({"before", 0, 2, "1000", "2000"});
  const Tree before = gateway();
  EXPECT_EQ(load("\nbefore\ny\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "Config 'before' exists. Overwrite? ‹y›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(statements(),
            (Texts{kInsertBefore, kDeleteBefore, kInsertBefore, kSelectWeekly, stamp_of("1")}));
  EXPECT_EQ(
      records(),
      (LogRecords{
          kTryTables, kTablesMade, kTryToSave,
          says(kCreate, 2,
               refusal("UNIQUE constraint failed: Config.name, Config.version", kInsertBefore, 19), {4}),
          says(kCreate, 1, "sqlite3_finalize() return code 19", {4}),
          says(kDelete, 4, "config name 'before'"), kTryToSave, changes(kCreate, 2), kTryToLoad, bytes(),
          changes(kLoad, 3)}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull, kPackEtc, kPackFull} + kUnpackAll));
  EXPECT_EQ(gateway(), restored(before));
  EXPECT_EQ(rows(),
            (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}, {"3", "before", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, CapitalYOverwritesATakenName) {
  put({"before", 0, 2, "1000", "2000"});
  EXPECT_EQ(load("y\nbefore\nY\n", "nobody"),
            "Save current configuration [Y/n]? ‹y›\n"
            "Name for the current configuration: ‹before›\n"
            "Config 'before' exists. Overwrite? ‹Y›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'nobody'.\n"
            "Unknown error: 0.\n");
  EXPECT_EQ(rows(), (Rows{{"2", "before", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, AnyOtherAnswerToTheOverwriteQuestionAborts) {
  put_snapshot();
  put({"before", 0, 2, "1000", "2000"});
  const Tree before = gateway();
  for (const std::string answer :
       {"yes", "YES", "n", "N", "no", "", " ", "y ", " y", "Y ", " Y", "yy", "y\r"}) {
    EXPECT_EQ(load("\nbefore\n" + answer + "\n"),
              kAskBefore + "Config 'before' exists. Overwrite? ‹" + answer + "›\nAborted.\n");
    EXPECT_EQ(statements(), Texts{kInsertBefore});
  }
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(rows(), (weekly + Rows{{"2", "before", "0", "2", "1000", "2000"}}));
}

TEST_F(AppLoad, OnlyTheLetterNSkipsTheSave) {
  for (const std::string answer : {"n", "N"}) {
    EXPECT_EQ(load(answer + "\nYes, do as I say\n", "nobody"),
              kAskToSave + "‹" + answer + "›\n" + kDemand + "‹Yes, do as I say›\n" + kNobody);
  }
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppLoad, EveryOtherAnswerSavesFirst) {
  Rows expected;
  for (const std::string answer :
       {"", "y", "Y", "yes", "YES", "no", "NO", "No", "nn", " n", "n ", "\tn", "n\r", " N", "N ", "q"}) {
    const std::string number = std::to_string(expected.size() + 1);
    EXPECT_EQ(load(answer + "\nbefore" + number + "\n", "nobody"), kAskToSave + "‹" + answer + "›\n" +
                                                                       kAskName + "‹before" + number +
                                                                       "›\n" + kSavedCurrent + kNobody);
    expected.push_back({number, "before" + number, "0", "1", "<now>", "NULL"});
  }
  EXPECT_EQ(rows(), expected);
}

TEST_F(AppLoad, OnlyTheExactPhraseConfirms) {
  put_snapshot();
  const Tree before = gateway();
  for (const std::string phrase :
       {"yes, do as i say", "YES, DO AS I SAY", "yes, do as I say", "Yes, do as i say", "Yes do as I say",
        "Yes,do as I say", "Yes, do  as I say", "Yes, do as I say ", " Yes, do as I say",
        "Yes, do as I say.", "Yes, do as I say\r", "Yes, do as I", ">>> Yes, do as I say", "yes", "y", "Y",
        ""}) {
    EXPECT_EQ(load("n\n" + phrase + "\n"), kAskToSave + "‹n›\n" + kDemand + "‹" + phrase + "›\nAborted.\n");
    EXPECT_EQ(statements(), Texts());
    EXPECT_EQ(commands(), Texts());
  }
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(rows(), weekly);
}

TEST_F(AppLoad, EndOfInputAbortsWhenTheEmptyNameIsTaken) {
  put_snapshot();
  put({"", 0});
  const Tree before = gateway();
  EXPECT_EQ(load(""),
            "Save current configuration [Y/n]? ‹EOF›"
            "Name for the current configuration: "
            "Config '' exists. Overwrite? "
            "Aborted.\n");
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(rows(), (weekly + Rows{{"2", "", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppLoad, QuestionsAreFlushedInAHostThatUntiesItsStreams) {
  put({"before", 0});
  const Untied untied;
  EXPECT_EQ(load(kOverBefore, "nobody"), kOverwriteBefore + kSavedCurrent + kNobody);
  EXPECT_EQ(load(kRecklessly, "nobody"), kReckless + kNobody);
}

TEST_F(AppLoad, NoLockIsHeldDuringAQuestion) {
  put_snapshot();
  put({"before", 0});
  std::vector<bool> free;
  const Console console(kOverBefore);
  const WatchedInput watched([&] { free.push_back(lock_is_free(database())); });
  App::load("weekly");
  EXPECT_EQ(free, (std::vector<bool>{true, true, true}));
}

TEST_F(AppLoad, NameForTheCurrentConfigurationIsNotChecked) {
  Rows expected;
  for (const std::string& name :
       Texts{"", " before ", "two words", "?", std::string(100, 'n'), "corlu-config"}) {
    EXPECT_EQ(load("\n" + name + "\n", "nobody"),
              kAskToSave + "‹›\n" + kAskName + "‹" + name + "›\n" + kSavedCurrent + kNobody);
    expected.push_back({std::to_string(expected.size() + 1), name, "0", "1", "<now>", "NULL"});
  }
  EXPECT_EQ(rows(), expected);
}

TEST_F(AppLoad, RefusedStatementCountsAsSaved) {
  EXPECT_EQ(load("\no'hare\n", "nobody"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹o'hare›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'nobody'.\n"
            "Unknown error: 0.\n");
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppLoad, SavingUnderTheNameToLoadRestoresWhatWasSaved) {
  put_snapshot();
  const Tree before = gateway();
  EXPECT_EQ(load("\nweekly\ny\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹weekly›\n"
            "Config 'weekly' exists. Overwrite? ‹y›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "0", "1", "<now>", "<now>"}}));
}

TEST_F(AppLoad, OtherNamesAndVersionsStayUnchanged) {
  put_snapshot("weekly", kCurrent);
  put_snapshot("weekly", 0);
  put({"before", kCurrent});
  put({"before", 0});
  put({"Before", 0});
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + kSavedCurrent + kLoadWeekly);
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", kCurrentText, "1", "1000", "NULL"},
                          {"2", "weekly", "0", "1", "1000", "<now>"},
                          {"3", "before", kCurrentText, "1", "1000", "NULL"},
                          {"5", "Before", "0", "1", "1000", "NULL"},
                          {"6", "before", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, MissingNameIsPrintedAsAnUnknownError) {
  EXPECT_EQ(load(kRecklessly, "nobody"),
            kReckless + "Loading configuration 'nobody'.\n" + "Unknown error: 0.\n");
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, select_of("nobody", "0")}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade, kTryToLoad,
                        says(kLoad, 2, "Configuration is not found: name=nobody, version=0", {8})}));
}

TEST_F(AppLoad, AnotherVersionIsNotFound) {
  put_snapshot("weekly", kCurrent);
  const Tree before = gateway();
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + kNotFound);
  EXPECT_EQ(gateway(), before);
}

TEST_F(AppLoad, NameIsNoPattern) {
  put_snapshot();
  EXPECT_EQ(load(kRecklessly, "week*"), kReckless + "Loading configuration 'week*'.\n" + kNotFound);
}

TEST_F(AppLoad, PacketFiltersRecordIsNotFound) {
  put_snapshot("corlu-config");
  EXPECT_EQ(load(kRecklessly, "corlu-config"),
            kReckless + "Loading configuration 'corlu-config'.\n" + kNotFound);
  EXPECT_EQ(rows(), (Rows{{"1", "corlu-config", "0", "1", "1000", "NULL"}}));
}

struct Ending {
  std::string name;
  std::string typed;
  std::string transcript;
  Rows rows;
};

void PrintTo(const Ending& row, std::ostream* out) { *out << row.name; }

class AppLoadEnding : public AppLoad, public testing::WithParamInterface<Ending> {};

TEST_P(AppLoadEnding, OfInput) {
  put_snapshot();
  put({"before", 0});
  const Tree before = gateway();
  EXPECT_EQ(load(GetParam().typed), GetParam().transcript);
  EXPECT_EQ(rows(), GetParam().rows);
  EXPECT_EQ(gateway(), rows()[0][5] == "NULL" ? before : restored(before));
}

const Texts kBeforeRow{"2", "before", "0", "1", "1000", "NULL"};
const Texts kNotLoaded{"1", "weekly", "0", "1", "1000", "NULL"};
const Texts kLoaded{"1", "weekly", "0", "1", "1000", "<now>"};
const std::vector<Ending> kEndings{
    {"AtTheFirstQuestionSavesUnderAnEmptyName",
     "",
     "Save current configuration [Y/n]? ‹EOF›"
     "Name for the current configuration: "
     "Kelmor configuration saved.\n"
     "Loading configuration 'weekly'.\n",
     {kLoaded, kBeforeRow, {"3", "", "0", "1", "<now>", "NULL"}}},
    {"AtTheNameSavesUnderAnEmptyName",
     "y\n",
     "Save current configuration [Y/n]? ‹y›\n"
     "Name for the current configuration: ‹EOF›"
     "Kelmor configuration saved.\n"
     "Loading configuration 'weekly'.\n",
     {kLoaded, kBeforeRow, {"3", "", "0", "1", "<now>", "NULL"}}},
    {"AtTheOverwriteQuestionAborts",
     "y\nbefore\n",
     "Save current configuration [Y/n]? ‹y›\n"
     "Name for the current configuration: ‹before›\n"
     "Config 'before' exists. Overwrite? ‹EOF›"
     "Aborted.\n",
     {kNotLoaded, kBeforeRow}},
    {"AtThePhraseAborts",
     "N\n",
     kAskToSave + "‹N›\n" + kDemand + "‹EOF›Aborted.\n",
     {kNotLoaded, kBeforeRow}},
    {"AfterThePhraseRestores",
     "n\nYes, do as I say",
     kAskToSave + "‹n›\n" + kDemand + "‹Yes, do as I say›\n‹EOF›" + kLoadWeekly,
     {kLoaded, kBeforeRow}},
};
INSTANTIATE_TEST_SUITE_P(End, AppLoadEnding, testing::ValuesIn(kEndings), by_name);

}  // namespace
