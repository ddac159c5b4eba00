// AutoSave(): failures and exceptions.

#include "confsave.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

#include "support/autosaves.h"

namespace {

using namespace ConfSave;
using namespace test;

class AutosavingFailure : public Autosaves {
 protected:
  /// The exception of an autosave, as thrown() has it.
  std::string thrown_by_autosave(unsigned limit) {
    std::string text;
    run([&] { text = thrown([limit] { AutoSave("", conf_full, limit); }); });
    return text;
  }
};

TEST_F(AutosavingFailure, OfTarPropagatesAfterTheSurplusIsDeleted) {
  put_names({"autosave-1", "autosave-2", "autosave-3"});
  host.on_command = fail_commands("cd /mnt/main/etc/ ", 7);
  EXPECT_EQ(thrown_by_autosave(2), "ConfSave::XExternalFailure 36: ");
  EXPECT_EQ(statements(), (Texts{kFindAutosaves, delete_of("autosave-1"), delete_of("autosave-2"),
                                 count_of("autosave-<now>"), delete_of("autosave-<now>")}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade, cleaning("maxautosaves = 2, find autosaves = 3"),
                        deleting("autosave-1"), deleting("autosave-2"), deleting("autosave-<now>"),
                        says(kPack, 1, "failed to create tar archive with error code: 7", {4})}));
  EXPECT_EQ(system_log(), (SystemLog{deleted("autosave-1"), deleted("autosave-2")}));
  EXPECT_EQ(names(), Texts{"autosave-3"});
}

TEST_F(AutosavingFailure, OfATemporaryFilePropagates) {
  put_names({"autosave-1"});
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  EXPECT_EQ(thrown_by_autosave(1), "XTOOStatus 17: No such file or directory");
  EXPECT_EQ(names(), Texts());
}

TEST_F(AutosavingFailure, OfReadingTheTableIsSilentAndStoresNothing) {
  make_foreign_table();
  host.log_level = 1;
  autosave(2);
  EXPECT_EQ(records(), LogRecords());
  host.log_level = 4;
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

TEST_F(AutosavingFailure, OfADamagedStorageIsSilentAndStoresNothing) {
  damage_database();
  host.log_level = 1;
  autosave(2);
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AutosavingFailure, OfTheOpeningIsLoggedAsASuccess) {
  make_storage_unopenable();
  autosave(5);
  EXPECT_EQ(records(),
            (LogRecords{kCannotOpen, says(kFindMatching, 2, refusal("", kFindAutosaves, 21), {4}),
                        cleaning("maxautosaves = 5, find autosaves = 0"), saved("autosave-<now>")}));
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AutosavingFailure, OfTheSystemLogDoesNotPreventTheAutosave) {
  put_names({"autosave-1", "autosave-2"});
  host.on_system_log = throwing(std::runtime_error("no system log"));
  host.log_level = 1;
  autosave(1);
  EXPECT_EQ(records(), (LogRecords{undeleted("autosave-1"), undeleted("autosave-2")}));
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(AutosavingFailure, IsAllThatIsLoggedAtLevel1) {
  put_names({"autosave-1"});
  host.log_level = 1;
  autosave(1);
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

class AutosavingException : public AutosavingFailure, public testing::WithParamInterface<Thrown> {};

TEST_P(AutosavingException, OfACommandPropagates) {
  fail_at(1, GetParam().raise);
  EXPECT_EQ(thrown_by_autosave(5), GetParam().text);
  EXPECT_EQ(rows(), Rows());
}

TEST_P(AutosavingException, OfTheStoragePropagates) {
  make_foreign_table();
  for (const std::string function : {"Storage", "FindMatching", "Exists"}) {
    fail_in_log(function, GetParam().raise);
    EXPECT_EQ(thrown_by_autosave(5), GetParam().text) << function;
  }
}

TEST_P(AutosavingException, OfTheDeleteOfAFreeNamePropagates) {
  make_table();
  fail_in_log("Delete", GetParam().raise);
  EXPECT_EQ(thrown_by_autosave(5), GetParam().text);
  EXPECT_EQ(statements(), (Texts{kFindAutosaves, count_of("autosave-<now>")}));
  EXPECT_EQ(rows(), Rows());
}

INSTANTIATE_TEST_SUITE_P(Each, AutosavingException, testing::ValuesIn(every_exception()), by_name);

}  // namespace
