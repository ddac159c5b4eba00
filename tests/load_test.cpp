// ConfSave::load().

#include "support/dialogue.h"

namespace {

using namespace ConfSave;
using namespace test;

const std::string kOffer = "Save current configuration? [Yes/No] ";
const std::string kConfirmed = kOffer + "‹no›\n" + kDemand + "‹Yes, do as I say›\n";
const std::string kLoading = "Loading configuration 'weekly' (version 4.5.4)\n";
const std::string kWarning =
    "Configuration version is newer than current Kelmor version (4.5.4)\n"
    "Files of a configuration, probably, will not be apprehended\n"
    "by the established version without additional manual editing.\n"
    "Do you want to continue? [Yes/No] ";
const std::string kAborted = "«Operation aborted!\n»";

constexpr int64 kNewer = 17280532480;  // 4.6.0

/// "weekly" is stored and one file of each archive is damaged since.
struct LoadTest : Dialogue {
  LoadTest() {
    whole = gateway();
    store("weekly", kCurrent);
    damage();
  }

  void store(const std::string& name, int64 version) { Storage().Create(name, conf_full, version); }

  void damage(const std::string& text = "damaged") {
    write_file(config_dir() + "user/filter.conf", text);
    write_file(etc_dir() + "failover.ini", text);
    damaged = gateway();
  }

  bool restored() const { return gateway() == whole; }
  bool untouched() const { return gateway() == damaged; }

  std::string load(const std::string& typed, const std::string& name = "weekly", int64 version = 0,
                   bool no_confirm = false, const char* target = nullptr) {
    return dialogue(typed, [&] { ConfSave::load(name, target, version, no_confirm); });
  }

  std::string load_silently(const std::string& name = "weekly", int64 version = 0) {
    return load("", name, version, true);
  }

  /// The number of rows that were loaded.
  std::string stamps() const { return Database(database()).value("select count(load_time) from Config"); }

  Tree whole;
  Tree damaged;
};

// ---------------------------------------------------------------------------------------------------
// Dialogues

/// A dialogue about one of the rows "weekly", "before", "newer", "older" and "plain".
struct Exchange {
  std::string name;
  std::string row;
  std::string typed;
  std::string transcript;
  bool loaded;
};

void PrintTo(const Exchange& row, std::ostream* out) { *out << row.name; }

struct LoadDialogue : LoadTest, testing::WithParamInterface<Exchange> {};

TEST_P(LoadDialogue, DecidesWhetherTheRowIsLoaded) {
  store("before", kCurrent);
  store("newer", kNewer);
  store("bits", kCurrent + 1);
  store("older", 17230331904);
  store("plain", 0);
  damage("not in any row");
  EXPECT_EQ(load(GetParam().typed, GetParam().row), GetParam().transcript);
  EXPECT_EQ(stamps(), GetParam().loaded ? "1" : "0");
  EXPECT_EQ(untouched(), !GetParam().loaded);
}

const std::string kNewerShown = kConfirmed + "Loading configuration 'newer' (version 4.6.0)\n" + kWarning;
const std::string kBitsShown = kConfirmed + "Loading configuration 'bits' (version 4.5.4)\n" + kWarning;
const std::string kNameAsked = kOffer + "‹yes›\nName for the current configuration: ";
const std::string kOverwriteAsked = kNameAsked +
                                    "‹before›\n"
                                    "Config with name 'before' (version 4.5.4) already exists!\n"
                                    "Overwrite it? [Yes/No] ";
const std::string kTyped = "no\n" + kPhrase;
const std::vector<Exchange> kExchanges{
    {"Phrase", "weekly", kTyped, kConfirmed + kLoading, true},
    {"SaveFirst", "weekly", "yes\nnow\n", kNameAsked + "‹now›\n" + kSavedCurrent + kLoading, true},
    {"NeitherYesNorNo", "weekly", "maybe\n", kOffer + "‹maybe›\n" + kAborted, false},
    {"OverwriteDeclined", "weekly", "yes\nbefore\nno\n",
     kOverwriteAsked + "‹no›\nConfig is not overwritten.\n" + kAborted, false},
    {"OverwriteConfirmed", "weekly", "yes\nbefore\nyes\n",
     kOverwriteAsked + "‹yes›\nConfig is overwritten.\n" + kSavedCurrent + kLoading, true},
    {"BadName", "weekly", "yes\nmy config\n",
     kNameAsked + "‹my config›\n"
                  "«The configuration name contains bad character ' '.\n"
                  "Valid characters should be in "
                  "[0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_].\n"
                  "Operation aborted!\n»",
     false},
    {"EndAtTheOffer", "weekly", "", kOffer + "‹EOF›" + kAborted, false},
    {"EndAtThePhrase", "weekly", "no\n", kOffer + "‹no›\n" + kDemand + "‹EOF›" + kAborted, false},
    {"EndAtTheName", "weekly", "yes\n",
     kNameAsked + "‹EOF›«The configuration name is empty.\nOperation aborted!\n»", false},
    {"EndAtTheWarning", "newer", kTyped, kNewerShown + "‹EOF›" + kAborted, false},
    {"NewerDeclined", "newer", kTyped + "no\n", kNewerShown + "‹no›\n" + kAborted, false},
    {"NewerNeitherYesNorNo", "newer", kTyped + "maybe\n", kNewerShown + "‹maybe›\n" + kAborted, false},
    {"NewerConfirmed", "newer", kTyped + "yes\n", kNewerShown + "‹yes›\n", true},
    {"NewerInTheLowBits", "bits", kTyped + "no\n", kBitsShown + "‹no›\n" + kAborted, false},
    {"OlderHasNoWarning", "older", kTyped, kConfirmed + "Loading configuration 'older' (version 4.3.2)\n",
     true},
    {"NoVersionIsNotPrinted", "plain", kTyped, kConfirmed + "Loading configuration 'plain'\n", true},
    {"PatternIsPrintedAsTheName", "w[a-e]*y", kTyped, kConfirmed + kLoading, true},
};
INSTANTIATE_TEST_SUITE_P(Each, LoadDialogue, testing::ValuesIn(kExchanges), by_name);

using LoadConfirmed = LoadTest;

TEST_F(LoadConfirmed, RestoresEveryFile) {
  EXPECT_EQ(load("yes\nbefore\n"),
            "Save current configuration? [Yes/No] ‹yes›\n"
            "Name for the current configuration: ‹before›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly' (version 4.5.4)\n");
  EXPECT_TRUE(restored());
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", kCurrentText, "1", "<now>", "<now>"},
                          {"2", "before", kCurrentText, "1", "<now>", "NULL"}}));
}

TEST_F(LoadConfirmed, LoadingIsPrintedBeforeTheFirstCommand) {
  host.on_command = [](const std::string&) -> std::optional<int> {
    std::ostream* tied = std::cerr.tie(nullptr);
    std::cerr << "!";
    std::cerr.tie(tied);
    return std::nullopt;
  };
  EXPECT_EQ(load(kTyped), kConfirmed + kLoading + "«!!!!!!»");
}

TEST_F(LoadConfirmed, RowThatIsDeletedDuringAQuestionIsNotFound) {
  Console console(kTyped, [this] { Database(database()).run("delete from Config"); });
  ConfSave::load("weekly", nullptr, 0, false);
  EXPECT_EQ(console.transcript(), kConfirmed + kLoading + "«No such config.\n»");
}

using LoadSilent = LoadTest;

TEST_F(LoadSilent, AsksAndPrintsNothing) {
  EXPECT_EQ(load_silently(), "");
  EXPECT_TRUE(restored());
}

TEST_F(LoadSilent, DoesNotWarnOfANewerVersion) {
  store("newer", kNewer);
  EXPECT_EQ(load_silently("newer"), "");
  EXPECT_EQ(stamps(), "1");
}

TEST_F(LoadSilent, TargetGetsTheFiles) {
  const std::string target = root() + "/target/";
  std::filesystem::create_directory(target);
  EXPECT_EQ(load("", "weekly", 0, true, target.c_str()), "");
  EXPECT_EQ(read_file(target + "failover.ini"), "content of failover.ini\n");
  EXPECT_EQ(read_file(target + "user/filter.conf"), "content of user/filter.conf\n");
  EXPECT_TRUE(untouched());
}

// ---------------------------------------------------------------------------------------------------
// Matches and failures

using LoadMatching = LoadTest;

TEST_F(LoadMatching, NoMatchIsPrinted) {
  store("corlu-config", kCurrent);
  for (const std::string name : {"nosuch", "Weekly", "weekl", "week?", "", "corlu-config"}) {
    EXPECT_EQ(load("", name), "«No such config.\n»") << name;
  }
  EXPECT_EQ(load("", "weekly", kCurrent + 1), "«No such config.\n»");
}

TEST_F(LoadMatching, FailureIsPrintedAfterTheStorageIsClosed) {
  const Console console;
  Texts open{"not printed"};
  const WatchedOutput watched(std::cerr, "No such config.\n", [&] { open = open_files(); });
  ConfSave::load("nosuch", nullptr, 0, true);
  EXPECT_EQ(open, Texts());
}

TEST_F(LoadMatching, VersionSelectsOneOfSeveral) {
  store("weekly", 5);
  EXPECT_EQ(load(""), "«Failed to match the only config.\n»");
  EXPECT_EQ(load("", "w*"), "«Failed to match the only config.\n»");
  EXPECT_TRUE(untouched());
  EXPECT_EQ(load_silently("weekly", kCurrent), "");
  EXPECT_EQ(statements(),
            (Texts{"select id, name, type, version, save_time, load_time from 'Config' where "
                   "name!='corlu-config' and name glob 'weekly' and version=17264017408",
                   "select keybase, etc, type, id from 'Config' where name!='corlu-config' and "
                   "name='weekly' and version=17264017408",
                   "update 'Config' set load_time=<now> where id=1"}));
}

using LoadFailure = LoadTest;

TEST_F(LoadFailure, OfTheOpeningIsPrinted) {
  make_storage_unopenable();
  EXPECT_EQ(load(""), "«Open configuration storage error\n»");
}

TEST_F(LoadFailure, OfTarDuringTheSaveAborts) {
  host.on_command = fail_commands("cd ", 1);
  EXPECT_EQ(load("yes\nbefore\n"),
            kNameAsked + "‹before›\n«'tar' returned non-zero exit status.\nOperation aborted!\n»");
  EXPECT_TRUE(untouched());
}

TEST_F(LoadFailure, OfTheRestoreIsPrinted) {
  EXPECT_EQ(load("", "weekly", 0, true, "/missing/"), "«Unknown error: 3.\n»");
  Database(database()).run("update Config set keybase=x'00', load_time=null");
  EXPECT_EQ(load_silently(), "«External command failed\n»");
  Database(database()).run("update Config set keybase=null, load_time=null");
  EXPECT_EQ(load_silently(), "«Unknown error: 0.\n»");
  EXPECT_EQ(stamps(), "0");
}

struct LoadException : LoadTest, testing::WithParamInterface<Thrown> {};

TEST_P(LoadException, OfACommandIsPrinted) {
  fail_at(1, GetParam().raise);
  EXPECT_EQ(load_silently(), "«" + GetParam().text + "»");
  damaged.erase("user/config.db");
  damaged.erase("user/config.idx");
  EXPECT_EQ(gateway(), damaged);
}

TEST_P(LoadException, OfTheOpeningIsPrinted) {
  fail_in_log("Storage", GetParam().raise);
  EXPECT_EQ(load(""), "«" + GetParam().text + "»");
}

const std::vector<Thrown> kExceptions{
    {"XNotFound", throwing(XNotFound(0, true)), "No such config.\n"},
    {"XAmbiguity", throwing(XAmbiguity(0, true)), "Failed to match the only config.\n"},
    {"XChdir", throwing(XChdir(0, true, "/some/where")), "Failed to change directory to /some/where\n"},
    {"XExternalFailure", throwing(XExternalFailure(36, true)), "External command failed\n"},
    {"XCancel", throwing(XCancel(0, true)), "Operation aborted!\n"},
    {"XConstraint", throwing(XConstraint(0, "text", false)), "Unknown error: 0.\n"},
    {"XTOOStatus", throwing(XTOOStatus(1234, true)), "Unknown error: 1234.\n"},
    {"RuntimeError", throwing(std::runtime_error("x")), "Unknown error (while loading configuration)!\n"},
    {"Number", throwing(1), "Unknown error (while loading configuration)!\n"},
};
INSTANTIATE_TEST_SUITE_P(Each, LoadException, testing::ValuesIn(kExceptions), by_name);

}  // namespace
