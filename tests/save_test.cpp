// ConfSave::save().

#include "support/dialogue.h"

namespace {

using namespace ConfSave;
using namespace test;

const std::string kQuestion =
    "Config with name 'weekly' (version 4.5.4) already exists!\nOverwrite it? [Yes/No] ";
const std::string kQuestionNoVersion = "Config with name 'weekly' already exists!\nOverwrite it? [Yes/No] ";
const std::string kOverwritten = "Config is overwritten.\n";

const std::string kCount0 = count_of("weekly", "0");
const std::string kCount = count_of("weekly");
const std::string kDelete0 = delete_of("weekly", "0");
const std::string kDeleteCurrent = delete_of("weekly");
const std::string kInsert = insert_of("weekly");
const std::string kBegin = "begin exclusive";
const Texts kNewTable{kPageSize, kAutoVacuum, kCreateTable};

struct SaveTest : Dialogue {
  Outcome save(const std::string& typed = "", int64 version = 0, bool force = false,
               conftype type = conf_full, const std::string& name = "weekly") {
    bool saved = false;
    std::string seen = dialogue(typed, [&] { saved = ConfSave::save(name, type, version, force); });
    return {seen, saved};
  }

  Outcome save_as(const std::string& name) { return save("", 0, false, conf_full, name); }

  const Rows old_row{{"1", "weekly", kCurrentText, "1", "1000", "NULL"}};
  const Rows new_row{{"2", "weekly", kCurrentText, "1", "<now>", "NULL"}};
};

using SaveName = SaveTest;

Outcome bad_character(char c) {
  return {"«The configuration name contains bad character '" + std::string(1, c) +
              "'.\nValid characters should be in "
              "[0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_].\n»",
          false};
}

TEST_F(SaveName, IsCheckedBeforeTheStorageIsOpened) {
  EXPECT_EQ(save_as(""), Outcome("«The configuration name is empty.\n»", false));
  EXPECT_EQ(save_as(std::string(81, ' ')), Outcome("«The configuration name is too long.\n»", false));
  EXPECT_EQ(save_as("my config!"), bad_character(' '));
  EXPECT_FALSE(exists(database()));
  EXPECT_EQ(save_as(std::string(80, 'a')), Outcome("", true));
}

TEST_F(SaveName, EachMessageIsFlushed) {
  Console console;
  std::cerr << std::nounitbuf;
  const WatchedOutput stream(std::cerr, "", nullptr);
  ConfSave::save("", conf_full, 0, true);
  EXPECT_EQ(stream.flushes(), 1);
  ConfSave::save(std::string(81, 'a'), conf_full, 0, true);
  EXPECT_EQ(stream.flushes(), 2);
  ConfSave::save("a b", conf_full, 0, true);
  EXPECT_EQ(stream.flushes(), 4);
  std::cerr << std::unitbuf;
}

TEST_F(SaveName, HasOnlyValidCharacters) {
  const std::string valid = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_";
  host.on_command = [](const std::string&) { return 0; };
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    Console console;
    const bool saved = ConfSave::save(std::string(1, c), conf_full, 0, false);
    EXPECT_EQ(Outcome(console.transcript(), saved),
              (valid.find(c) != std::string::npos ? Outcome("", true) : bad_character(c)))
        << byte;
  }
  EXPECT_EQ(rows().size(), 64U);
}

using SaveNew = SaveTest;

TEST_F(SaveNew, WithoutAVersionTakesTheRunningVersionSilently) {
  host.log_level = 2;
  EXPECT_EQ(save(), Outcome("", true));
  EXPECT_EQ(statements(),
            (kNewTable + Texts{"select count(*) from 'Config' where name='weekly' and version=0",
                               "select count(*) from 'Config' where name='weekly' and version=17264017408",
                               "begin exclusive", "delete from 'Config' where name='weekly' and version=0",
                               "delete from 'Config' where name='weekly' and version=17264017408",
                               "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                               "('weekly',?,?,17264017408,<now>,1)",
                               "commit"}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", kCurrentText, "1", "<now>", "NULL"}}));
  EXPECT_EQ(host.records,
            LogRecords{says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017408)", {8})});
}

TEST_F(SaveNew, VersionIsStored) {
  put({"weekly", kCurrent});
  EXPECT_EQ(save("", 5, false, static_cast<conftype>(-7)), Outcome("", true));
  EXPECT_EQ(statements(), (Texts{count_of("weekly", "5"), kBegin, delete_of("weekly", "5"),
                                 insert_of("weekly", "5", "-7"), "commit"}));
  EXPECT_EQ(rows(), (old_row + Rows{{"2", "weekly", "5", "-7", "<now>", "NULL"}}));
}

using SaveOver = SaveTest;

TEST_F(SaveOver, RunningVersionIsAskedAboutAndUpdated) {
  host.log_level = 2;
  put({"weekly", kCurrent});
  EXPECT_EQ(save("yes\n"), Outcome("Config with name 'weekly' (version 4.5.4) already exists!\n"
                                   "Overwrite it? [Yes/No] ‹yes›\n"
                                   "Config is overwritten.\n",
                                   true));
  EXPECT_EQ(statements(), (Texts{kCount0, kCount, kBegin, kDeleteCurrent, kInsert, "commit"}));
  EXPECT_EQ(rows(), new_row);
  EXPECT_EQ(
      host.records,
      LogRecords{says(kUpdate, 2, "Try to update configuration 'weekly' (version 17264017408)", {8})});
}

TEST_F(SaveOver, GivenVersionIsAskedAboutAndUpdated) {
  put({"weekly", 4294967296});
  EXPECT_EQ(save("Y\n", 4294967296), Outcome("Config with name 'weekly' (version 1.0.0) already exists!\n"
                                             "Overwrite it? [Yes/No] ‹Y›\n"
                                             "Config is overwritten.\n",
                                             true));
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "4294967296", "1", "<now>", "NULL"}}));
}

TEST_F(SaveOver, RowWithoutAVersionIsReplacedByTheRunningVersion) {
  host.log_level = 2;
  put({"weekly", 0});
  EXPECT_EQ(save("y\n"), Outcome("Config with name 'weekly' already exists!\n"
                                 "Overwrite it? [Yes/No] ‹y›\n"
                                 "Config is overwritten.\n",
                                 true));
  EXPECT_EQ(statements(), (Texts{kCount0, kBegin, kDelete0, kInsert, "commit"}));
  EXPECT_EQ(rows(), new_row);
  EXPECT_EQ(host.records,
            LogRecords{says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017408)", {8})});
}

TEST_F(SaveOver, RowWithoutAVersionBesideTheRunningVersionIsAnUnknownError) {
  put({"weekly", 0});
  put({"weekly", kCurrent});
  EXPECT_EQ(save("y\n"), Outcome(kQuestionNoVersion + "‹y›\n«Unknown error: 0.\n»", false));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "NULL"},
                          {"2", "weekly", kCurrentText, "1", "1000", "NULL"}}));
}

TEST_F(SaveOver, ForceAsksNothingAndPrintsTheResult) {
  put({"weekly", kCurrent});
  put({"daily", 0});
  EXPECT_EQ(save("", 0, true), Outcome("Config is overwritten.\n", true));
  EXPECT_EQ(save("", kCurrent, true, conf_part), Outcome("Config is overwritten.\n", true));
  EXPECT_EQ(save("", 0, true, conf_part, "daily"), Outcome("Config is overwritten.\n", true));
  EXPECT_EQ(rows(), (Rows{{"4", "weekly", kCurrentText, "2", "<now>", "NULL"},
                          {"5", "daily", kCurrentText, "2", "<now>", "NULL"}}));
}

TEST_F(SaveOver, RefusedInsertLosesTheRowAndIsPrintedAsOverwritten) {
  put({"weekly", kCurrent});
  query("create trigger refuse before insert on Config begin select raise(fail, 'full'); end");
  EXPECT_EQ(save("", 0, true), Outcome("Config is overwritten.\n", true));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(SaveOver, NoKeepsTheRow) {
  put({"weekly", kCurrent});
  EXPECT_EQ(save("no\n"), Outcome(kQuestion + "‹no›\nConfig is not overwritten.\n", false));
  EXPECT_EQ(statements(), (Texts{kCount0, kCount}));
  EXPECT_EQ(save("maybe\n"), Outcome(kQuestion + "‹maybe›\n«Operation aborted!\n»", false));
  EXPECT_EQ(save(""), Outcome(kQuestion + "‹EOF›«Operation aborted!\n»", false));
  EXPECT_EQ(rows(), old_row);
}

TEST_F(SaveOver, ArchivesArePackedInsideTheTransaction) {
  put({"weekly", kCurrent});
  int locked = 0;
  host.on_command = [&](const std::string&) -> std::optional<int> {
    if (!lock_is_free(database())) ++locked;
    return std::nullopt;
  };
  EXPECT_EQ(save("", 0, true), Outcome(kOverwritten, true));
  EXPECT_EQ(locked, 2);
}

TEST_F(SaveOver, ResultIsPrintedAfterTheCommit) {
  put({"weekly", kCurrent});
  const Console console;
  bool committed = false;
  const WatchedOutput watched(std::cout, "Config is overwritten.\n",
                              [&] { committed = lock_is_free(database()); });
  EXPECT_TRUE(ConfSave::save("weekly", conf_full, 0, true));
  EXPECT_TRUE(committed);
}

using SaveFailure = SaveTest;

TEST_F(SaveFailure, OfTheOpeningIsPrinted) {
  make_storage_unopenable();
  EXPECT_EQ(save(), Outcome("«Open configuration storage error\n»", false));
  EXPECT_EQ(commands(), Texts());
}

TEST_F(SaveFailure, IsPrintedBeforeTheStorageIsClosed) {
  make_table();
  host.on_command = fail_commands("cd ", 1);
  const Console console;
  Texts open;
  const WatchedOutput watched(std::cerr, "'tar' returned non-zero exit status.\n",
                              [&] { open = open_files(); });
  EXPECT_FALSE(ConfSave::save("weekly", conf_full, 0, false));
  EXPECT_EQ(open, Texts{database()});
}

TEST_F(SaveFailure, OfTarIsPrintedAndNothingIsCommitted) {
  host.on_command = fail_commands("cd " + config_dir(), 2);
  EXPECT_EQ(save(), Outcome("«'tar' returned non-zero exit status.\n»", false));
  EXPECT_EQ(statements(), (kNewTable + Texts{kCount0, kCount, kBegin, kDelete0, kDeleteCurrent}));
  EXPECT_EQ(rows(), Rows());
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  EXPECT_EQ(save(), Outcome("«Unknown error: 17.\n»", false));
}

TEST_F(SaveFailure, OfTheInsertCountsAsSaved) {
  Database(database()).run("create table Config (name, version)");
  EXPECT_EQ(save(), Outcome("", true));
  EXPECT_EQ(query("select count(*) from Config"), Rows{{"0"}});
}

TEST_F(SaveFailure, OfReadingTheTableCountsAsATakenName) {
  Database(database()).run("create table Config (a)");
  EXPECT_EQ(save("no\n"), Outcome(kQuestionNoVersion + "‹no›\nConfig is not overwritten.\n", false));
}

TEST_F(SaveFailure, ExceptionOfTheOpeningPropagates) {
  expect_propagation("Storage", [] { ConfSave::save("weekly", conf_full, 0, false); });
}

struct SaveException : SaveTest, testing::WithParamInterface<Thrown> {};

TEST_P(SaveException, OfACommandIsPrintedAndNothingIsCommitted) {
  put({"weekly", kCurrent});
  fail_at(2, GetParam().raise);
  EXPECT_EQ(save("", 0, true), Outcome("«" + GetParam().text + "»", false));
  EXPECT_EQ(save("", 5), Outcome("«" + GetParam().text + "»", false));
  EXPECT_EQ(rows(), old_row);
}

const std::vector<Thrown> kExceptions{
    {"XNotFound", throwing(XNotFound(0, true)), "Failed to execute external command.\n"},
    {"XExternalFailure", throwing(XExternalFailure(36, true)), "'tar' returned non-zero exit status.\n"},
    {"XChdir", throwing(XChdir(0, true, "/a")), "'tar' returned non-zero exit status.\n"},
    {"XCancel", throwing(XCancel(0, true)), "Operation aborted!\n"},
    {"XAmbiguity", throwing(XAmbiguity(0, true)), "Unknown error: 0.\n"},
    {"XConstraint", throwing(XConstraint(7, "text", false)), "Unknown error: 7.\n"},
    {"XTOOStatus", throwing(XTOOStatus(1234, true)), "Unknown error: 1234.\n"},
    {"RuntimeError", throwing(std::runtime_error("x")), "Unknown error (while saving configuration)!\n"},
    {"Number", throwing(1), "Unknown error (while saving configuration)!\n"},
};
INSTANTIATE_TEST_SUITE_P(Each, SaveException, testing::ValuesIn(kExceptions), by_name);

}  // namespace
