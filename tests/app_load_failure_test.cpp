// App::load: failures and exceptions.

#include "confsave.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/app_load.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

namespace fs = std::filesystem;

using AppLoadFailure = AppLoad;

TEST_F(AppLoadFailure, BrokenRowIsPrintedAsAnUnknownError) {
  put({"weekly", 0, 1, "1000", "NULL", "NULL"});
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + kNotFound);
}

TEST_F(AppLoadFailure, BrokenArchiveIsPrintedAsAnExternalFailure) {
  put({"weekly", 0});
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "External command failed\n");
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}}));
}

TEST_F(AppLoadFailure, UndeletableConfigurationDatabaseIsPrintedAsAnExternalFailure) {
  put_snapshot();
  fs::remove(config_dir() + "user/config.db");
  fs::create_directory(config_dir() + "user/config.db");
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "External command failed\n");
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AppLoadFailure, MissingTemporaryDirectoryIsPrintedByItsStatus) {
  put_snapshot();
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "Unknown error: 17.\n");
  EXPECT_EQ(load(kCarefully), kAskBefore + "Unknown error: 17.\n");
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}}));
}

TEST_F(AppLoadFailure, MissingDestinationIsPrintedByItsStatus) {
  put_snapshot();
  fs::remove_all(config_dir());
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "Unknown error: 3.\n");
}

TEST_F(AppLoadFailure, UnopenableStorageCountsAsSavedAndIsPrintedAsAnUnknownError) {
  make_storage_unopenable();
  const Tree before = gateway();
  EXPECT_EQ(load("\nbefore\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n"
            "Unknown error: 0.\n");
  EXPECT_EQ(records(), (LogRecords{kCannotOpen, kTryToLoad,
                                   says(kLoad, 2, refusal("out of memory", kSelectWeekly, 21), {4}),
                                   says(kLoad, 1, "SQL error: out of memory. Query: " + kSelectWeekly)}));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + kNotFound);
}

TEST_F(AppLoadFailure, DamagedStorageCountsAsSavedAndIsPrintedAsAnUnknownError) {
  damage_database();
  EXPECT_EQ(load(kCarefully), kAskBefore + kSavedCurrent + kLoadWeekly + kNotFound);
}

TEST_F(AppLoadFailure, TarFailureOfTheSaveIsPrintedAndAborts) {
  host.on_command = fail_commands("cd " + config_dir(), 2);
  EXPECT_EQ(load(kCarefully, "nobody"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "'tar' returned non-zero exit status.\n"
            "Aborted.\n");
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kPack, 1, "failed to create tar archive with error code: 2", {4})}));
}

TEST_F(AppLoadFailure, TarFailureOfTheSecondTryIsPrintedAndTheOldRowIsLost) {
  put({"before", 0});
  end_with(2, 3);
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + "External command failed\n");
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppLoadFailure, NameStillTakenAtTheSecondTryIsPrintedByItsStatus) {
  put({"before", 0});
  keep_all_rows();
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + "Unknown error: 0.\n");
  EXPECT_EQ(rows(), (Rows{{"1", "before", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppLoadFailure, XConstraintOfTheHostAsksAsATakenNameDoes) {
  fail_at(1, throwing(XConstraint(0, "quota", false)));
  EXPECT_EQ(load(kOverBefore, "nobody"), kOverwriteBefore + kSavedCurrent + kNobody);
  EXPECT_EQ(rows(), (Rows{{"1", "before", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoadFailure, StatusIsPrintedWithoutDigitGroups) {
  put_snapshot();
  fail_at(1, throwing(XTOOStatus(1234567, true)));
  const GroupedDigits grouped(std::cout);
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "Unknown error: 1234567.\n");
}

TEST_F(AppLoadFailure, InputExceptionIsPrintedAsUnknown) {
  const ThrowingAtEndOfInput end;
  const std::string unknown = "‹EOF›Unknown error while restoring configuration.\n";
  put({"before", 0});
  EXPECT_EQ(load(""), kAskToSave + unknown);
  EXPECT_EQ(load("n\n"), kAskToSave + "‹n›\n" + kDemand + unknown);
  EXPECT_EQ(load("\n"), kAskToSave + "‹›\n" + kAskName + unknown);
  EXPECT_EQ(load("\nbefore\n"), kAskBefore + "Config 'before' exists. Overwrite? " + unknown);
}

/// An exception, the text that reports it, and that text when the first try to save throws.
struct Rung {
  std::string name;
  Raise raise;
  std::string text;
  std::string text_of_save;
};

void PrintTo(const Rung& row, std::ostream* out) { *out << row.name; }

class AppLoadException : public AppLoad, public testing::WithParamInterface<Rung> {
 protected:
  AppLoadException() { put_snapshot(); }
};

TEST_P(AppLoadException, OfTheRestoreIsPrinted) {
  fail_at(1, GetParam().raise);
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + GetParam().text);
  EXPECT_EQ(commands(),
            Texts{"tar xzf <archive> --exclude corlu.serv -C /mnt/main/etc//<scratch> 2>/dev/null"});
}

TEST_P(AppLoadException, OfTheRestoreAfterTheSaveIsPrinted) {
  put({"before", 0});
  fail_at(8, GetParam().raise);  // After four commands that pack and three that restore the failover files.
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + kSavedCurrent + kLoadWeekly + GetParam().text);
  EXPECT_EQ(rows().back(), (Texts{"3", "before", "0", "1", "<now>", "NULL"}));
}

TEST_P(AppLoadException, OfTheSecondTryToSaveIsPrintedAndTheOldRowIsLost) {
  put({"before", 0});
  const Tree before = gateway();
  fail_at(3, GetParam().raise);
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + GetParam().text);
  EXPECT_EQ(statements(), (Texts{kInsertBefore, kDeleteBefore}));
  EXPECT_EQ(rows(), weekly);
  EXPECT_EQ(gateway(), before);
}

TEST_P(AppLoadException, OfTheFirstTryToSaveIsPrinted) {
  const Tree before = gateway();
  fail_at(1, GetParam().raise);
  EXPECT_EQ(load(kCarefully), kAskBefore + GetParam().text_of_save);
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), weekly);
  EXPECT_EQ(gateway(), before);
}

const std::vector<Rung> kLadder{
    {"XChdir", throwing(XChdir(0, true, "/srv/gateway")), "Failed to change directory to /srv/gateway\n",
     "'tar' returned non-zero exit status.\nAborted.\n"},
    {"XChdirWithoutADirectory", throwing(XChdir(0, "", false, "")), "Failed to change directory to \n",
     "'tar' returned non-zero exit status.\nAborted.\n"},
    {"XExternalFailure", throwing(XExternalFailure(36, true)), "External command failed\n",
     "'tar' returned non-zero exit status.\nAborted.\n"},
    {"XCancel", throwing(XCancel(3, true)), "Aborted.\n", "Aborted.\n"},
    {"XNotFound", throwing(XNotFound(0, true)), "Unknown error: 0.\n",
     "Failed to execute external command.\nAborted.\n"},
    {"XAmbiguity", throwing(XAmbiguity(1, true)), "Unknown error: 1.\n", "Unknown error: 1.\n"},
    {"XConstraint", throwing(XConstraint(12, "quota", false)), "Unknown error: 12.\n",
     "Config 'before' exists. Overwrite? ‹EOF›Aborted.\n"},
    {"StatusWithText", throwing(XTOOStatus(54, "Illegal seek", false)), "Unknown error: 54.\n",
     "Unknown error: 54.\n"},
    {"NegativeStatus", throwing(XTOOStatus(-1, true)), "Unknown error: -1.\n", "Unknown error: -1.\n"},
    {"GreatestStatus", throwing(XTOOStatus(INT_MAX, true)), "Unknown error: 2147483647.\n",
     "Unknown error: 2147483647.\n"},
    {"LeastStatus", throwing(XTOOStatus(INT_MIN, true)), "Unknown error: -2147483648.\n",
     "Unknown error: -2147483648.\n"},
    {"RuntimeError", throwing(std::runtime_error("no")), "Unknown error while restoring configuration.\n",
     "Unknown error while restoring configuration.\n"},
    {"BadAlloc", throwing(std::bad_alloc()), "Unknown error while restoring configuration.\n",
     "Unknown error while restoring configuration.\n"},
    {"Number", throwing(7), "Unknown error while restoring configuration.\n",
     "Unknown error while restoring configuration.\n"},
};
INSTANTIATE_TEST_SUITE_P(Each, AppLoadException, testing::ValuesIn(kLadder), by_name);

class AppLoadOpening : public AppLoad, public testing::WithParamInterface<Thrown> {};

TEST_P(AppLoadOpening, ExceptionPropagates) {
  fail_in_log("Storage", GetParam().raise);
  std::string propagated;
  EXPECT_EQ(dialogue("", [&] { propagated = thrown([] { App::load("weekly"); }); }), "");
  EXPECT_EQ(propagated, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Each, AppLoadOpening, testing::ValuesIn(every_exception()), by_name);

}  // namespace
