// App::load.

#include <climits>

#include "support/dialogue.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

const std::string kAskToSave = "Save current configuration [Y/n]? ";
const std::string kLoadWeekly = "Loading configuration 'weekly'.\n";
const std::string kNobody = "Loading configuration 'nobody'.\nUnknown error: 0.\n";
const std::string kInsertBefore = insert_of("before", "0");

/// The input that restores without saving first, and the transcript before the restore.
const std::string kRecklessly = "n\nYes, do as I say\n";
const std::string kReckless = kAskToSave + "‹n›\n" + kDemand + "‹Yes, do as I say›\n";
/// The same for saving first as "before", a free name.
const std::string kCarefully = "\nbefore\n";
const std::string kAskBefore = kAskToSave + "‹›\n" + kAskName + "‹before›\n";
/// The same for saving first as "before", a taken name.
const std::string kOverBefore = "\nbefore\ny\n";
const std::string kOverwriteBefore = kAskBefore + "Config 'before' exists. Overwrite? ‹y›\n";

const LogRecord kTryToLoad = says(kLoad, 2, "Try to load");

const Texts kUnloaded{"1", "weekly", "0", "1", "1000", "NULL"};
const Texts kLoaded{"1", "weekly", "0", "1", "1000", "<now>"};
const Texts kBefore{"2", "before", "0", "2", "1000", "2000"};

/// The row of a name that was saved.
Texts saved(const std::string& id, const std::string& name) {
  return {id, name, "0", "1", "<now>", "NULL"};
}

struct AppLoad : Dialogue {
  std::string load(const std::string& typed, const std::string& name = "weekly") {
    return dialogue(typed, [&] { App::load(name); });
  }

  void put_before() { put({"before", 0, 2, "1000", "2000"}); }
};

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
  EXPECT_EQ(statements(), (Texts{select_of("weekly", "0"), stamp_of("1")}));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, kTryToLoad,
                                   says(kLoad, 2, "sqlite3_column_bytes: " + sizes, {4, 4}),
                                   says(kLoad, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(commands(), (unpack_into("/mnt/main/etc/") + unpack_into("<root>/config/")));
  EXPECT_EQ(gateway(), restored(before));
  EXPECT_EQ(rows(), Rows{kLoaded});
}

TEST_F(AppLoad, SavesFirstByDefault) {
  put_snapshot();
  const Tree before = gateway();
  EXPECT_EQ(load("\nbefore\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(statements(), (Texts{kInsertBefore, select_of("weekly", "0"), stamp_of("1")}));
  EXPECT_EQ(commands(),
            (Texts{kPackEtc, kPackFull} + unpack_into("/mnt/main/etc/") + unpack_into("<root>/config/")));
  EXPECT_EQ(gateway(), restored(before));
  EXPECT_EQ(load(kRecklessly, "before"), kReckless + "Loading configuration 'before'.\n");
  EXPECT_EQ(gateway(), before);
}

/// A dialogue beside the rows "weekly" and "before", and the rows afterwards.
struct Exchange {
  std::string name;
  std::string loads;
  std::string typed;
  std::string transcript;
  Rows rows;
};

void PrintTo(const Exchange& row, std::ostream* out) { *out << row.name; }

struct AppLoadDialogue : AppLoad, testing::WithParamInterface<Exchange> {};

TEST_P(AppLoadDialogue, SavesAndRestores) {
  put_snapshot();
  put_before();
  const Tree before = gateway();
  EXPECT_EQ(load(GetParam().typed, GetParam().loads), GetParam().transcript);
  EXPECT_EQ(rows(), GetParam().rows);
  EXPECT_EQ(gateway(), rows()[0] == kLoaded ? restored(before) : before);
}

const Rows kUnchanged{kUnloaded, kBefore};
const std::vector<Exchange> kExchanges{
    {"EndAtTheFirstQuestion",
     "weekly",
     "",
     kAskToSave + "‹EOF›" + kAskName + kSavedCurrent + kLoadWeekly,
     {kLoaded, kBefore, saved("3", "")}},
    {"EndAtTheName",
     "weekly",
     "y\n",
     kAskToSave + "‹y›\n" + kAskName + "‹EOF›" + kSavedCurrent + kLoadWeekly,
     {kLoaded, kBefore, saved("3", "")}},
    {"EndAtTheOverwriteQuestion", "weekly", kCarefully,
     kAskBefore + "Config 'before' exists. Overwrite? ‹EOF›Aborted.\n", kUnchanged},
    {"EndAtThePhrase", "weekly", "N\n", kAskToSave + "‹N›\n" + kDemand + "‹EOF›Aborted.\n", kUnchanged},
    {"EndAfterThePhrase",
     "weekly",
     "n\nYes, do as I say",
     kAskToSave + "‹n›\n" + kDemand + "‹Yes, do as I say›\n‹EOF›" + kLoadWeekly,
     {kLoaded, kBefore}},
    {"CapitalNSkipsTheSave", "nobody", "N\n" + kPhrase,
     kAskToSave + "‹N›\n" + kDemand + "‹Yes, do as I say›\n" + kNobody, kUnchanged},
    {"CapitalYOverwrites",
     "nobody",
     "y\nbefore\nY\n",
     kAskToSave + "‹y›\n" + kAskName + "‹before›\nConfig 'before' exists. Overwrite? ‹Y›\n" +
         kSavedCurrent + kNobody,
     {kUnloaded, saved("3", "before")}},
    {"RefusedStatementCountsAsSaved", "nobody", "\no'hare\n",
     kAskToSave + "‹›\n" + kAskName + "‹o'hare›\n" + kSavedCurrent + kNobody, kUnchanged},
    {"SavesUnderTheNameToLoad",
     "weekly",
     "\nweekly\ny\n",
     kAskToSave + "‹›\n" + kAskName + "‹weekly›\nConfig 'weekly' exists. Overwrite? ‹y›\n" + kSavedCurrent +
         kLoadWeekly,
     {kBefore, {"3", "weekly", "0", "1", "<now>", "<now>"}}},
    {"NameIsNoPattern", "week*", kRecklessly,
     kReckless + "Loading configuration 'week*'.\nUnknown error: 0.\n", kUnchanged},
};
INSTANTIATE_TEST_SUITE_P(Each, AppLoadDialogue, testing::ValuesIn(kExchanges), by_name);

TEST_F(AppLoad, AnyOtherAnswerToTheOverwriteQuestionAborts) {
  put_before();
  for (const std::string answer : {"yes", "YES", "n", "", " ", "y ", " y", "Y ", " Y", "yy", "y\r"}) {
    EXPECT_EQ(load("\nbefore\n" + answer + "\n"),
              kAskBefore + "Config 'before' exists. Overwrite? ‹" + answer + "›\nAborted.\n");
    EXPECT_EQ(statements(), Texts{kInsertBefore});
  }
}

TEST_F(AppLoad, EveryOtherAnswerSavesFirst) {
  Rows expected;
  for (const std::string answer :
       {"", "y", "Y", "yes", "no", "NO", "No", "nn", " n", "n ", "\tn", "n\r", " N", "N ", "q"}) {
    const std::string name = " b " + std::to_string(expected.size() + 1);
    EXPECT_EQ(load(answer + "\n" + name + "\n", "nobody"),
              kAskToSave + "‹" + answer + "›\n" + kAskName + "‹" + name + "›\n" + kSavedCurrent + kNobody);
    expected.push_back(saved(std::to_string(expected.size() + 1), name));
  }
  EXPECT_EQ(rows(), expected);
}

TEST_F(AppLoad, AnyOtherPhraseAborts) {
  put_snapshot();
  for (const std::string phrase :
       {"YES, DO AS I SAY", "yes, do as I say", "Yes, do as i say", "Yes do as I say", "Yes,do as I say",
        "Yes, do as I say ", " Yes, do as I say", "Yes, do as I say.", "Yes, do as I say\r",
        ">>> Yes, do as I say", "Y", ""}) {
    EXPECT_EQ(load("n\n" + phrase + "\n"), kAskToSave + "‹n›\n" + kDemand + "‹" + phrase + "›\nAborted.\n");
    EXPECT_EQ(statements(), Texts());
  }
}

TEST_F(AppLoad, OtherNamesAndVersionsStayUnchanged) {
  put_snapshot("weekly", kCurrent);
  put_snapshot("weekly", 0);
  put({"before", kCurrent});
  put({"before", 0});
  put({"Before", 0});
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + kSavedCurrent + kLoadWeekly);
  EXPECT_EQ(statements(), (Texts{kInsertBefore, delete_of("before", "0"), kInsertBefore,
                                 select_of("weekly", "0"), stamp_of("2")}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", kCurrentText, "1", "1000", "NULL"},
                          {"2", "weekly", "0", "1", "1000", "<now>"},
                          {"3", "before", kCurrentText, "1", "1000", "NULL"},
                          {"5", "Before", "0", "1", "1000", "NULL"},
                          saved("6", "before")}));
}

TEST_F(AppLoad, MissingNameIsPrintedAsAnUnknownError) {
  put_snapshot("nobody", kCurrent);
  EXPECT_EQ(load(kRecklessly, "nobody"),
            kReckless + "Loading configuration 'nobody'.\n" + "Unknown error: 0.\n");
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade, kTryToLoad,
                        says(kLoad, 2, "Configuration is not found: name=nobody, version=0", {8})}));
  put_snapshot("corlu-config");
  EXPECT_EQ(load(kRecklessly, "corlu-config"),
            kReckless + "Loading configuration 'corlu-config'.\nUnknown error: 0.\n");
}

using AppLoadFailure = AppLoad;

TEST_F(AppLoadFailure, OfTheRestoreIsPrinted) {
  const auto loading = [this](const std::string& name) {
    const std::string start = kReckless + "Loading configuration '" + name + "'.\n";
    const std::string text = load(kRecklessly, name);
    return text.substr(0, start.size()) == start ? text.substr(start.size()) : text;
  };
  put({"row", 0, 1, "1000", "NULL", "NULL"});
  put({"archive", 0});
  EXPECT_EQ(loading("row"), "Unknown error: 0.\n");
  EXPECT_EQ(loading("archive"), "External command failed\n");
  EXPECT_EQ(rows()[1], (Texts{"2", "archive", "0", "1", "1000", "<now>"}));
}

TEST_F(AppLoadFailure, UnopenableStorageCountsAsSavedAndIsPrintedAsAnUnknownError) {
  make_storage_unopenable();
  EXPECT_EQ(load("\nbefore\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n"
            "Unknown error: 0.\n");
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AppLoadFailure, DamagedStorageCountsAsSavedAndIsPrintedAsAnUnknownError) {
  damage_database();
  EXPECT_EQ(load(kCarefully), kAskBefore + kSavedCurrent + kLoadWeekly + "Unknown error: 0.\n");
}

TEST_F(AppLoadFailure, OfTheSecondTryIsPrintedAndTheOldRowIsLost) {
  put_before();
  fail_at(3, throwing(XExternalFailure(36, true)));
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + "External command failed\n");
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppLoadFailure, NameStillTakenAtTheSecondTryIsPrintedByItsStatus) {
  put_before();
  keep_all_rows();
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + "Unknown error: 0.\n");
}

TEST_F(AppLoadFailure, OfTheInputIsPrintedAsUnknown) {
  const ThrowingAtEndOfInput end;
  const std::string unknown = "‹EOF›Unknown error while restoring configuration.\n";
  put_before();
  EXPECT_EQ(load(""), kAskToSave + unknown);
  EXPECT_EQ(load("n\n"), kAskToSave + "‹n›\n" + kDemand + unknown);
  EXPECT_EQ(load("\n"), kAskToSave + "‹›\n" + kAskName + unknown);
  EXPECT_EQ(load(kCarefully), kAskBefore + "Config 'before' exists. Overwrite? " + unknown);
}

TEST_F(AppLoadFailure, ExceptionOfTheOpeningPropagates) {
  expect_propagation("Storage", [] { App::load("weekly"); });
}

/// An exception, the text that reports it, and that text when the first try to save throws.
struct Rung {
  std::string name;
  Raise raise;
  std::string text;
  std::string text_of_save;
};

void PrintTo(const Rung& row, std::ostream* out) { *out << row.name; }

struct AppLoadException : AppLoad, testing::WithParamInterface<Rung> {
  AppLoadException() { put_snapshot(); }
};

TEST_P(AppLoadException, OfTheRestoreIsPrinted) {
  fail_at(1, GetParam().raise);
  const GroupedDigits grouped(std::cout);
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + GetParam().text);
  EXPECT_EQ(commands(), Texts{unpack_into("/mnt/main/etc/")[0]});
}

TEST_P(AppLoadException, OfTheFirstTryToSaveIsPrinted) {
  const Tree before = gateway();
  fail_at(1, GetParam().raise);
  EXPECT_EQ(load(kCarefully), kAskBefore + GetParam().text_of_save);
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(gateway(), before);
}

const std::string kTarFailed = "'tar' returned non-zero exit status.\nAborted.\n";
const std::string kUnknown = "Unknown error while restoring configuration.\n";
const std::vector<Rung> kLadder{
    {"XChdir", throwing(XChdir(0, true, "/srv/gateway")), "Failed to change directory to /srv/gateway\n",
     kTarFailed},
    {"XExternalFailure", throwing(XExternalFailure(36, true)), "External command failed\n", kTarFailed},
    {"XCancel", throwing(XCancel(3, true)), "Aborted.\n", "Aborted.\n"},
    {"XNotFound", throwing(XNotFound(0, true)), "Unknown error: 0.\n",
     "Failed to execute external command.\nAborted.\n"},
    {"XAmbiguity", throwing(XAmbiguity(1, true)), "Unknown error: 1.\n", "Unknown error: 1.\n"},
    {"XConstraint", throwing(XConstraint(12, "quota", false)), "Unknown error: 12.\n",
     "Config 'before' exists. Overwrite? ‹EOF›Aborted.\n"},
    {"LeastStatus", throwing(XTOOStatus(INT_MIN, "text", false)), "Unknown error: -2147483648.\n",
     "Unknown error: -2147483648.\n"},
    {"RuntimeError", throwing(std::runtime_error("no")), kUnknown, kUnknown},
    {"Number", throwing(7), kUnknown, kUnknown},
};
INSTANTIATE_TEST_SUITE_P(Each, AppLoadException, testing::ValuesIn(kLadder), by_name);

}  // namespace
