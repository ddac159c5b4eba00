// App::save.

#include "support/dialogue.h"

namespace {

using namespace ConfSave;
using namespace test;

const std::string kFailedToSave = "«Failed to save configuration 'weekly'.\n»";
const std::string kAsk = "Config 'weekly' exists. Overwrite? ";
const std::string kOverwrite = kAsk + "‹y›\n";
const std::string kInsert = insert_of("weekly", "0");
const std::string kDeleteWeekly = delete_of("weekly", "0");
const LogRecord kTryToSave = says(kCreate, 2, "Try to save configuration 'weekly' (version 0)", {8});

struct AppSave : Dialogue {
  Outcome save(const std::string& typed = "", const std::string& name = "weekly",
               conftype type = conf_full) {
    bool stored = false;
    std::string seen = dialogue(typed, [&] { stored = App::save(name, type); });
    return {seen, stored};
  }

  void put_weekly() { put({"weekly", 0, 2, "1000", "2000"}); }

  const Rows weekly{{"1", "weekly", "0", "2", "1000", "2000"}};
};

TEST_F(AppSave, NewNameIsStoredSilently) {
  put({"weekly", kCurrent});
  EXPECT_EQ(save(), Outcome("", true));
  EXPECT_EQ(statements(), Texts{kInsert});
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, kTryToSave,
                                   says(kCreate, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", kCurrentText, "1", "1000", "NULL"},
                          {"2", "weekly", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppSave, YOverwritesATakenName) {
  put_weekly();
  put({"weekly", kCurrent});
  put({"Weekly", 0});
  EXPECT_EQ(save("y\n"), Outcome("Config 'weekly' exists. Overwrite? ‹y›\n", true));
  EXPECT_EQ(statements(), (Texts{kInsert, kDeleteWeekly, kInsert}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull, kPackEtc, kPackFull}));
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", kCurrentText, "1", "1000", "NULL"},
                          {"3", "Weekly", "0", "1", "1000", "NULL"},
                          {"4", "weekly", "0", "1", "<now>", "NULL"}}));
  EXPECT_EQ(save("Y\n", "weekly", conf_part), Outcome("Config 'weekly' exists. Overwrite? ‹Y›\n", true));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart, kPackEtc, kPackPart}));
  EXPECT_EQ(rows().back(), (Texts{"5", "weekly", "0", "2", "<now>", "NULL"}));
  EXPECT_EQ(save("y"), Outcome(kOverwrite + "‹EOF›", true));
}

TEST_F(AppSave, AnyOtherAnswerKeepsTheOldRow) {
  put_weekly();
  EXPECT_EQ(save(""), Outcome("Config 'weekly' exists. Overwrite? ‹EOF›", false));
  for (const std::string answer :
       {"yes", "YES", "n", "N", "", " ", "y ", " y", "Y ", " Y", "\ty", "y\r", "yy", "Yy", "j", "1"}) {
    EXPECT_EQ(save(answer + "\n"), Outcome(kAsk + "‹" + answer + "›\n", false));
    EXPECT_EQ(statements(), Texts{kInsert});
  }
  EXPECT_EQ(rows(), weekly);
}

TEST_F(AppSave, ReadsOnlyOneLine) {
  put_weekly();
  Console console("n\ny\n");
  EXPECT_FALSE(App::save("weekly", conf_full));
  EXPECT_EQ(console.unread(), "y\n");
}

TEST_F(AppSave, NamesAreNotChecked) {
  for (const std::string& name : Texts{"", "two words", "*", std::string(100, 'n'), "corlu-config"}) {
    EXPECT_EQ(save("", name), Outcome("", true));
    EXPECT_EQ(save("n\n", name), Outcome("Config '" + name + "' exists. Overwrite? ‹n›\n", false));
    EXPECT_EQ(rows().back()[1], name);
  }
}

TEST_F(AppSave, RefusedStatementCountsAsSaved) {
  EXPECT_EQ(save("", "o'hare"), Outcome("", true));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppSave, UnopenableStorageCountsAsSaved) {
  make_storage_unopenable();
  EXPECT_EQ(save(), Outcome("", true));
  EXPECT_EQ(records(), LogRecords{kCannotOpen});
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AppSave, DamagedStorageCountsAsSaved) {
  damage_database();
  EXPECT_EQ(save(), Outcome("", true));
}

TEST_F(AppSave, FailureIsPrinted) {
  host.on_command = fail_commands("cd /mnt/main/etc/ && tar czf ", 7);
  EXPECT_EQ(save(), Outcome("'tar' returned non-zero exit status.\n", false));
  EXPECT_EQ(rows(), Rows());
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  EXPECT_EQ(save(), Outcome(kFailedToSave, false));
  EXPECT_EQ(save("", "o'hare"), Outcome("«Failed to save configuration 'o'hare'.\n»", false));
}

TEST_F(AppSave, NameStillTakenAtTheSecondTryIsPrinted) {
  put_weekly();
  keep_all_rows();
  EXPECT_EQ(save("y\n"), Outcome(kOverwrite + kFailedToSave, false));
  EXPECT_EQ(rows(), weekly);
}

TEST_F(AppSave, InputExceptionIsPrinted) {
  put_weekly();
  const ThrowingAtEndOfInput end;
  EXPECT_EQ(save(), Outcome(kAsk + "‹EOF›" + kFailedToSave, false));
}

TEST_F(AppSave, OutputExceptionIsPrinted) {
  for (const Raise& raise : {throwing(XNotFound(0, true)), throwing(XExternalFailure(36, true))}) {
    fail_at(1, raise);
    bool stored = true;
    const auto call = [&] {
      const BreakingOutput broken(0);
      stored = App::save("weekly", conf_full);
    };
    EXPECT_EQ(dialogue("", call), kFailedToSave);
    EXPECT_FALSE(stored);
  }
}

struct AppSaveException : AppSave, testing::WithParamInterface<Thrown> {};

TEST_P(AppSaveException, OfTheFirstTryIsPrinted) {
  make_table();
  fail_at(2, GetParam().raise);
  EXPECT_EQ(save(), Outcome(GetParam().text, false));
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
}

TEST_P(AppSaveException, OfTheSecondTryIsPrintedAndTheOldRowIsLost) {
  put_weekly();
  fail_at(3, GetParam().raise);
  EXPECT_EQ(save("y\n"), Outcome(kOverwrite + kFailedToSave, false));
  EXPECT_EQ(statements(), (Texts{kInsert, kDeleteWeekly}));
  EXPECT_EQ(rows(), Rows());
}

TEST_P(AppSaveException, OfTheOpeningIsPrinted) {
  fail_in_log("Storage", GetParam().raise);
  EXPECT_EQ(save(), Outcome(kFailedToSave, false));
}

const std::vector<Thrown> kExceptions{
    {"XNotFound", throwing(XNotFound(0, true)), "Failed to execute external command.\n"},
    {"XExternalFailure", throwing(XExternalFailure(36, true)), "'tar' returned non-zero exit status.\n"},
    {"XChdir", throwing(XChdir(0, true, "/srv/gateway")), "'tar' returned non-zero exit status.\n"},
    {"XConstraint", throwing(XConstraint(0, true)), "Config 'weekly' exists. Overwrite? ‹EOF›"},
    {"XCancel", throwing(XCancel(0, true)), "«Failed to save configuration 'weekly'.\n»"},
    {"XAmbiguity", throwing(XAmbiguity(0, true)), "«Failed to save configuration 'weekly'.\n»"},
    {"StatusWithText", throwing(XTOOStatus(17, "No space left on device", false)),
     "«Failed to save configuration 'weekly'.\n»"},
    {"RuntimeError", throwing(std::runtime_error("no")), "«Failed to save configuration 'weekly'.\n»"},
    {"Number", throwing(7), "«Failed to save configuration 'weekly'.\n»"},
};
INSTANTIATE_TEST_SUITE_P(Each, AppSaveException, testing::ValuesIn(kExceptions), by_name);

}  // namespace
