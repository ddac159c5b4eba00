#include "confsave.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <stdexcept>

#include "support/console.h"
#include "support/gateway.h"

namespace {

using namespace ConfSave;
using test::Console;
using test::kCurrent;
using Texts = std::vector<std::string>;

const std::string kOffer = "Save current configuration? [Yes/No] ";
const std::string kDemand =
    "You are about to overwrite your existing configuration.\n"
    "This is unsafe. To continue, type \n"
    ">>> Yes, do as I say\n"
    "in response to the prompt:\n"
    ">>> ";
const std::string kConfirmed = kOffer + "‹no›\n" + kDemand + "‹Yes, do as I say›\n";
const std::string kLoading = "Loading configuration 'weekly' (version 4.5.4)\n";
const std::string kWarning =
    "Configuration version is newer than current Kelmor version (4.5.4)\n"
    "Files of a configuration, probably, will not be apprehended\n"
    "by the established version without additional manual editing.\n"
    "Do you want to continue? [Yes/No] ";
const std::string kAborted = "«Operation aborted!\n»";
const std::string kPhrase = "Yes, do as I say\n";

constexpr int64 kNewer = 17280532480;  // 4.6.0

class LoadTest : public test::Gateway {
 protected:
  LoadTest() {
    make_configuration();
    saved = test::tree(config_dir());
    store("weekly", kCurrent);
    damage();
  }

  void TearDown() override {
    if (test::exists(database())) {
      EXPECT_TRUE(test::lock_is_free(database()));
    }
    EXPECT_EQ(temp_files(), Texts());
    EXPECT_EQ(open_files(), Texts());
  }

  void store(const std::string& name, int64 version) {
    Storage storage;
    storage.Create(name, conf_full, version);
  }

  void damage() {
    test::write_file(config_dir() + "user/filter.conf", "damaged");
    test::write_file(etc_dir() + "failover.ini", "damaged");
    host.commands.clear();
  }

  bool restored() const {
    return test::tree(config_dir()) == saved &&
           test::read_file(etc_dir() + "failover.ini") == "content of failover.ini\n";
  }
  bool untouched() const {
    return test::read_file(config_dir() + "user/filter.conf") == "damaged" &&
           test::read_file(etc_dir() + "failover.ini") == "damaged";
  }

  /// Loads; the whole transcript must be `expected`.
  void load_with(const std::string& input, const std::string& expected, const std::string& name = "weekly",
                 int64 version = 0, bool no_confirm = false) {
    Console console(input);
    load(name, nullptr, version, no_confirm);
    EXPECT_EQ(console.transcript(), expected);
    EXPECT_TRUE(std::cin.tie() != nullptr);
  }

  /// How often the row was loaded.
  std::string stamps() const {
    return test::Database(database()).value("select count(load_time) from Config");
  }

  std::map<std::string, std::string> saved;
};

using LoadConfirmed = LoadTest;

TEST_F(LoadConfirmed, DeclinedAndConfirmedItRestores) {
  load_with("no\n" + kPhrase, kConfirmed + kLoading);
  EXPECT_TRUE(restored());
  EXPECT_EQ(stamps(), "1");
}

TEST_F(LoadConfirmed, OnlyThePhraseToTheLetterConfirms) {
  for (const char* phrase : {"yes, do as I say", "Yes, do as I say ", " Yes, do as I say",
                             "Yes, do as i say", "yes", "", "Yes, do as I say."}) {
    load_with("no\n" + std::string(phrase) + "\n",
              kOffer + "‹no›\n" + kDemand + "‹" + phrase + "›\n" + kAborted);
    EXPECT_TRUE(untouched()) << phrase;
  }
  EXPECT_EQ(stamps(), "0");
}

TEST_F(LoadConfirmed, AnyOtherAnswerToTheOfferAborts) {
  load_with("maybe\n", kOffer + "‹maybe›\n" + kAborted);
  EXPECT_TRUE(untouched());
}

TEST_F(LoadConfirmed, TheEndOfInputAbortsAtEveryQuestion) {
  load_with("", kOffer + "‹EOF›" + kAborted);
  load_with("no\n", kOffer + "‹no›\n" + kDemand + "‹EOF›" + kAborted);
  load_with("yes\n", kOffer +
                         "‹yes›\nName for the current configuration: ‹EOF›"
                         "«The configuration name is empty.\nOperation aborted!\n»");
  store("newer", kNewer);
  load_with("no\n" + kPhrase,
            kConfirmed + "Loading configuration 'newer' (version 4.6.0)\n" + kWarning + "‹EOF›" + kAborted,
            "newer");
  EXPECT_TRUE(untouched());
  EXPECT_EQ(stamps(), "0");
}

TEST_F(LoadConfirmed, TheCurrentConfigurationIsSavedFirst) {
  load_with("yes\nbefore\n",
            kOffer + "‹yes›\nName for the current configuration: ‹before›\nKelmor configuration saved.\n" +
                kLoading);
  EXPECT_TRUE(restored());
  EXPECT_EQ(test::Database(database()).query("select name, version, type from Config order by id"),
            (std::vector<Texts>{{"weekly", "17264017408", "1"}, {"before", "17264017408", "1"}}));
}

TEST_F(LoadConfirmed, ATakenNameForTheCurrentConfigurationIsAskedAbout) {
  store("before", kCurrent);
  const std::string asked = kOffer +
                            "‹yes›\nName for the current configuration: ‹before›\n"
                            "Config with name 'before' (version 4.5.4) already exists!\n"
                            "Overwrite it? [Yes/No] ";
  load_with("yes\nbefore\nno\n", asked + "‹no›\nConfig is not overwritten.\n" + kAborted);
  EXPECT_TRUE(untouched());
  load_with("yes\nbefore\nyes\n",
            asked + "‹yes›\nConfig is overwritten.\nKelmor configuration saved.\n" + kLoading);
  EXPECT_TRUE(restored());
}

TEST_F(LoadConfirmed, ABadNameForTheCurrentConfigurationAborts) {
  load_with("yes\nmy config\n", kOffer +
                                    "‹yes›\nName for the current configuration: ‹my config›\n"
                                    "«The configuration name contains bad character ' '.\n"
                                    "Valid characters should be in "
                                    "[0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_].\n"
                                    "Operation aborted!\n»");
  EXPECT_TRUE(untouched());
}

TEST_F(LoadConfirmed, AnOlderVersionIsLoadedWithoutAWarning) {
  store("older", 17230331904);
  load_with("no\n" + kPhrase, kConfirmed + "Loading configuration 'older' (version 4.3.2)\n", "older");
}

TEST_F(LoadConfirmed, ANewerVersionIsWarnedOf) {
  store("newer", kNewer);
  const std::string warned = kConfirmed + "Loading configuration 'newer' (version 4.6.0)\n" + kWarning;
  load_with("no\n" + kPhrase + "no\n", warned + "‹no›\n" + kAborted, "newer");
  load_with("no\n" + kPhrase + "maybe\n", warned + "‹maybe›\n" + kAborted, "newer");
  EXPECT_EQ(stamps(), "0");
  load_with("no\n" + kPhrase + "yes\n", warned + "‹yes›\n", "newer");
  EXPECT_EQ(stamps(), "1");
}

TEST_F(LoadConfirmed, AVersionThatDiffersInTheLowBitsIsNewer) {
  store("newer", kCurrent + 1);
  load_with("no\n" + kPhrase + "no\n",
            kConfirmed + "Loading configuration 'newer' (version 4.5.4)\n" + kWarning + "‹no›\n" + kAborted,
            "newer");
}

TEST_F(LoadConfirmed, NoVersionIsNotShown) {
  store("x", 0);
  damage();
  load_with("no\n" + kPhrase, kConfirmed + "Loading configuration 'x'\n", "x");
}

TEST_F(LoadConfirmed, EveryQuestionIsSeenInAHostThatUntiedItsStreams) {
  std::ostream* tied = std::cin.tie(nullptr);
  Console console("no\n" + kPhrase);
  load("weekly", nullptr, 0, false);
  std::cin.tie(tied);
  EXPECT_EQ(console.transcript(), kConfirmed + kLoading);
}

TEST_F(LoadConfirmed, TheLoadingIsSeenBeforeItBegins) {
  Console console("no\n" + kPhrase);
  host.on_command = [](const std::string&) -> std::optional<int> {
    std::ostream* tied = std::cerr.tie(nullptr);
    std::cerr << "!";
    std::cerr.tie(tied);
    return std::nullopt;
  };
  load("weekly", nullptr, 0, false);
  EXPECT_EQ(console.transcript(), kConfirmed + kLoading + "«!!!!!!»");
}

using LoadSilent = LoadTest;

TEST_F(LoadSilent, NothingIsAskedAndNothingPrinted) {
  load_with("no\n", "", "weekly", 0, true);
  EXPECT_TRUE(restored());
}

TEST_F(LoadSilent, ANewerVersionIsNotWarnedOf) {
  store("newer", kNewer);
  load_with("", "", "newer", 0, true);
  EXPECT_EQ(stamps(), "1");
}

TEST_F(LoadSilent, ATargetTakesTheFiles) {
  const std::string target = root() + "/target/";
  std::filesystem::create_directory(target);
  Console console;
  load("weekly", target.c_str(), 0, true);
  EXPECT_EQ(console.transcript(), "");
  EXPECT_EQ(test::read_file(target + "failover.ini"), "content of failover.ini\n");
  EXPECT_EQ(test::read_file(target + "user/filter.conf"), "content of user/filter.conf\n");
  EXPECT_TRUE(untouched());
}

using LoadMatching = LoadTest;

TEST_F(LoadMatching, NothingThatMatchesIsTold) {
  for (const std::string name : {"nosuch", "Weekly", "weekl", "week?", ""}) {
    load_with("", "«No such config.\n»", name);
  }
  load_with("", "«No such config.\n»", "weekly", kCurrent + 1);
}

TEST_F(LoadMatching, TheStorageIsClosedBeforeAFailureIsTold) {
  Console console;
  Texts open{"not told"};
  const test::WatchedOutput told(std::cerr, "No such config.\n", [&] { open = open_files(); });
  load("nosuch", nullptr, 0, true);
  EXPECT_EQ(open, Texts());
}

TEST_F(LoadMatching, SeveralThatMatchAreTold) {
  store("weekly", 5);
  load_with("", "«Failed to match the only config.\n»");
  load_with("", "«Failed to match the only config.\n»", "w*");
  EXPECT_TRUE(untouched());
}

TEST_F(LoadMatching, AVersionSelectsOneOfSeveral) {
  store("weekly", 5);
  damage();
  test::StatementRecorder recorder;
  load_with("", "", "weekly", kCurrent, true);
  Texts statements;
  for (const std::string& text : recorder.statements()) {
    statements.push_back(std::regex_replace(text, std::regex("load_time=[0-9]{10}"), "load_time=<now>"));
  }
  EXPECT_EQ(
      statements,
      (Texts{
          "select id, name, type, version, save_time, load_time from 'Config' where name!='corlu-config' "
          "and name glob 'weekly' and version=17264017408",
          "select keybase, etc, type, id from 'Config' where name!='corlu-config' and name='weekly' and "
          "version=17264017408",
          "update 'Config' set load_time=<now> where id=1"}));
}

TEST_F(LoadMatching, APatternStandsForTheNameThatItMatches) {
  load_with("no\n" + kPhrase, kConfirmed + kLoading, "w[a-e]*y");
  EXPECT_TRUE(restored());
}

TEST_F(LoadMatching, ThePacketFiltersOwnRecordIsNotFound) {
  store("corlu-config", kCurrent);
  load_with("", "«No such config.\n»", "corlu-config");
}

using LoadFailure = LoadTest;

TEST_F(LoadFailure, StorageThatCannotBeOpenedIsTold) {
  setenv("KELMOR_DYNAMIC_DIR", "/missing", 1);
  load_with("", "«Open configuration storage error\n»");
}

TEST_F(LoadFailure, WhatTheOpeningThrowsIsTold) {
  host.entry_points.begin = [](int, const ClUnilogFname&, const char*, int) { throw XTOOStatus(9, true); };
  load_with("", "«Unknown error: 9.\n»");
}

TEST_F(LoadFailure, EachExceptionHasItsMessage) {
  const std::vector<std::pair<std::function<void()>, std::string>> ladder = {
      {[] { throw XNotFound(0, true); }, "No such config.\n"},
      {[] { throw XAmbiguity(0, true); }, "Failed to match the only config.\n"},
      {[] { throw XChdir(0, true, "/some/where"); }, "Failed to change directory to /some/where\n"},
      {[] { throw XExternalFailure(36, true); }, "External command failed\n"},
      {[] { throw XCancel(0, true); }, "Operation aborted!\n"},
      {[] { throw XConstraint(0, "text", false); }, "Unknown error: 0.\n"},
      {[] { throw XTOOStatus(1234, true); }, "Unknown error: 1234.\n"},
      {[] { throw std::runtime_error("x"); }, "Unknown error (while loading configuration)!\n"},
      {[] { throw 1; }, "Unknown error (while loading configuration)!\n"},
  };
  for (const auto& [fail, message] : ladder) {
    host.on_command = [&fail = fail](const std::string&) -> std::optional<int> {
      fail();
      return 0;
    };
    load_with("", "«" + message + "»", "weekly", 0, true);
    EXPECT_TRUE(test::lock_is_free(database()));
    EXPECT_EQ(temp_files(), Texts());
  }
  EXPECT_TRUE(untouched());
}

TEST_F(LoadFailure, AnArchiveThatCannotBeUnpackedIsAnExternalFailure) {
  test::Database(database()).run("update Config set keybase=x'00'");
  load_with("", "«External command failed\n»", "weekly", 0, true);
}

TEST_F(LoadFailure, ABrokenRowIsAnUnknownError) {
  test::Database(database()).run("update Config set keybase=null");
  load_with("", "«Unknown error: 0.\n»", "weekly", 0, true);
  EXPECT_EQ(stamps(), "0");
}

TEST_F(LoadFailure, ADestinationThatIsMissingIsToldByItsStatus) {
  Console console;
  load("weekly", "/missing/", 0, true);
  EXPECT_EQ(console.transcript(), "«Unknown error: 3.\n»");
}

TEST_F(LoadFailure, ATarThatFailsWhileSavingFirstAborts) {
  host.on_command = test::fail_commands("cd ", 1);
  load_with("yes\nbefore\n", kOffer +
                                 "‹yes›\nName for the current configuration: ‹before›\n"
                                 "«'tar' returned non-zero exit status.\nOperation aborted!\n»");
  EXPECT_TRUE(untouched());
}

/// Types each line when it is waited for, after a look around.
class WatchedInput : public std::streambuf {
 public:
  WatchedInput(Texts lines, std::function<void()> look)
      : lines_(std::move(lines)), look_(std::move(look)), before_(std::cin.rdbuf(this)) {}
  WatchedInput(const WatchedInput&) = delete;
  WatchedInput& operator=(const WatchedInput&) = delete;
  ~WatchedInput() override { std::cin.rdbuf(before_); }

  std::size_t asked() const { return next_; }

 protected:
  int_type underflow() override {
    if (next_ == lines_.size()) return traits_type::eof();
    look_();
    std::string& line = lines_[next_++];
    setg(line.data(), line.data(), line.data() + line.size());
    return traits_type::to_int_type(line.front());
  }

 private:
  Texts lines_;
  std::function<void()> look_;
  std::streambuf* before_;
  std::size_t next_ = 0;
};

TEST_F(LoadFailure, ARowThatGoesWhileThePersonIsAskedIsNotFound) {
  Console console;
  const WatchedInput input({"no\n", kPhrase},
                           [this] { test::Database(database()).run("delete from Config"); });
  load("weekly", nullptr, 0, false);
  EXPECT_EQ(console.transcript(), kOffer + kDemand + kLoading + "«No such config.\n»");
}

using LoadLocks = LoadTest;

TEST_F(LoadLocks, NoneIsHeldWhileThePersonIsAsked) {
  store("before", kCurrent);
  store("newer", kNewer);
  Console console;
  const auto look = [this] { EXPECT_TRUE(test::lock_is_free(database())); };
  {
    const WatchedInput input({"no\n", kPhrase, "yes\n"}, look);
    load("newer", nullptr, 0, false);
    EXPECT_EQ(input.asked(), 3U);
  }
  {
    const WatchedInput input({"yes\n", "before\n", "yes\n"}, look);
    load("weekly", nullptr, 0, false);
    EXPECT_EQ(input.asked(), 3U);
  }
}

}  // namespace
