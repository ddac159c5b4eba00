#include "confsave.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <stdexcept>
#include <streambuf>

#include "support/console.h"
#include "support/gateway.h"

namespace {

using namespace ConfSave;
using test::Console;
using test::kCurrent;
using test::LogRecords;
using Texts = std::vector<std::string>;
using Rows = std::vector<Texts>;

const std::string kQuestion =
    "Config with name 'weekly' (version 4.5.4) already exists!\nOverwrite it? [Yes/No] ";
const std::string kQuestionNoVersion = "Config with name 'weekly' already exists!\nOverwrite it? [Yes/No] ";

std::string insert_of(const std::string& version, const std::string& type = "1") {
  return "insert into 'Config' (name,keybase,etc,version, save_time, type) values ('weekly',?,?," +
         version + ",<now>," + type + ")";
}
const std::string kCount0 = "select count(*) from 'Config' where name='weekly' and version=0";
const std::string kCountCurrent =
    "select count(*) from 'Config' where name='weekly' and version=17264017408";
const std::string kDelete0 = "delete from 'Config' where name='weekly' and version=0";
const std::string kDeleteCurrent = "delete from 'Config' where name='weekly' and version=17264017408";

class SaveTest : public test::Gateway {
 protected:
  SaveTest() { make_configuration(); }

  /// No statement open, no lock held, no file left, whatever happened.
  void TearDown() override {
    if (test::exists(database())) {
      EXPECT_TRUE(test::lock_is_free(database()));
      EXPECT_EQ(test::Database(database()).value("pragma integrity_check"), "ok");
    }
    EXPECT_EQ(temp_files(), Texts());
    EXPECT_EQ(open_files(), Texts());
  }

  void put(const test::RowSpec& row) {
    { const Storage storage; }
    test::insert_row(database(), row);
  }

  /// Name, version, type, and whether it was saved by this test.
  Rows rows() const {
    return test::Database(database())
        .query("select name, version, type, save_time > 1488377100 from Config order by id");
  }

  /// Saves "weekly"; the whole transcript must be `expected`.
  bool save_with(const std::string& input, const std::string& expected, int64 version = 0,
                 bool force = false, conftype type = conf_full) {
    Console console(input);
    test::StatementRecorder recorder;
    const bool saved = save("weekly", type, version, force);
    EXPECT_EQ(console.transcript(), expected);
    statements.clear();
    for (const std::string& text : recorder.statements()) {
      if (text == test::kChooseLayout || text == test::kCreateTable) continue;
      statements.push_back(std::regex_replace(text, std::regex(",[0-9]{10},(?=-?[0-9]+\\)$)"), ",<now>,"));
    }
    return saved;
  }

  Texts statements;
};

using SaveName = SaveTest;

std::string bad_character(char c) {
  return "«The configuration name contains bad character '" + std::string(1, c) +
         "'.\nValid characters should be in "
         "[0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_].\n»";
}

TEST_F(SaveName, AnEmptyOneIsRefused) {
  Console console;
  EXPECT_FALSE(save("", conf_full, 0, true));
  EXPECT_EQ(console.transcript(), "«The configuration name is empty.\n»");
  EXPECT_FALSE(test::exists(database()));
}

TEST_F(SaveName, OneOf80CharactersIsAcceptedAndOneOf81IsNot) {
  Console console;
  EXPECT_TRUE(save(std::string(80, 'a'), conf_full, 0, false));
  EXPECT_EQ(console.transcript(), "");
  std::filesystem::remove(database());
  EXPECT_FALSE(save(std::string(81, 'a'), conf_full, 0, false));
  EXPECT_EQ(console.transcript(), "«The configuration name is too long.\n»");
  EXPECT_FALSE(test::exists(database()));
}

TEST_F(SaveName, EachLineIsFlushed) {
  Console console;
  std::cerr << std::nounitbuf;
  const test::WatchedOutput stream(std::cerr, "", nullptr);
  save("", conf_full, 0, true);
  EXPECT_EQ(stream.flushes(), 1);
  save(std::string(81, 'a'), conf_full, 0, true);
  EXPECT_EQ(stream.flushes(), 2);
  save("a b", conf_full, 0, true);
  EXPECT_EQ(stream.flushes(), 4);
  std::cerr << std::unitbuf;
}

TEST_F(SaveName, ATooLongOneIsToldBeforeABadCharacter) {
  Console console;
  EXPECT_FALSE(save(std::string(81, ' '), conf_full, 0, false));
  EXPECT_EQ(console.transcript(), "«The configuration name is too long.\n»");
}

TEST_F(SaveName, TheFirstBadCharacterIsShown) {
  Console console;
  EXPECT_FALSE(save("my config!", conf_full, 0, false));
  EXPECT_EQ(console.transcript(), bad_character(' '));
  EXPECT_FALSE(test::exists(database()));
}

TEST_F(SaveName, OnlyTheValidCharactersAreAccepted) {
  const std::string valid = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_";
  host.on_command = [](const std::string&) -> std::optional<int> { return 0; };
  int accepted = 0;
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    Console console;
    const bool saved = save(std::string(1, c), conf_full, 0, false);
    const bool is_valid = valid.find(c) != std::string::npos;
    EXPECT_EQ(saved, is_valid) << byte;
    EXPECT_EQ(console.transcript(), is_valid ? "" : bad_character(c)) << byte;
    accepted += saved ? 1 : 0;
  }
  EXPECT_EQ(accepted, 64);
}

TEST_F(SaveName, ItIsCheckedBeforeTheStorageIsOpened) {
  std::filesystem::remove(state_dir());
  Console console;
  EXPECT_FALSE(save("", conf_full, 0, false));
  EXPECT_EQ(console.transcript(), "«The configuration name is empty.\n»");
}

using SaveNew = SaveTest;

TEST_F(SaveNew, OfNoVersionIsStoredUnderTheRunningVersionSilently) {
  EXPECT_TRUE(save_with("", ""));
  EXPECT_EQ(statements, (Texts{kCount0, kCountCurrent, "begin exclusive", kDelete0, kDeleteCurrent,
                               insert_of("17264017408"), "commit"}));
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "1", "1"}}));
  EXPECT_EQ(host.records_up_to(2),
            LogRecords{test::says(test::kCreate, 2,
                                  "Try to save configuration 'weekly' (version 17264017408)", {8})});
}

TEST_F(SaveNew, OfAVersionIsStoredUnderIt) {
  put({"weekly", kCurrent});
  EXPECT_TRUE(save_with("", "", 5));
  EXPECT_EQ(statements,
            (Texts{"select count(*) from 'Config' where name='weekly' and version=5", "begin exclusive",
                   "delete from 'Config' where name='weekly' and version=5", insert_of("5"), "commit"}));
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "1", "0"}, {"weekly", "5", "1", "1"}}));
}

TEST_F(SaveNew, AnyTypeIsStored) {
  for (const int type : {0, 1, 2, 3, 7, -1}) {
    EXPECT_TRUE(save_with("", "", 10 + type, false, static_cast<conftype>(type)));
    EXPECT_EQ(statements[3], insert_of(std::to_string(10 + type), std::to_string(type)));
  }
}

using SaveOver = SaveTest;

TEST_F(SaveOver, ItIsToldWhenItIsCommitted) {
  put({"weekly", kCurrent});
  Console console;
  bool committed = false;
  const test::WatchedOutput told(std::cout, "Config is overwritten.\n",
                                 [&] { committed = test::lock_is_free(database()); });
  EXPECT_TRUE(save("weekly", conf_full, 0, true));
  EXPECT_TRUE(committed);
}

TEST_F(SaveOver, TheRunningVersionIsAskedAndUpdated) {
  put({"weekly", kCurrent});
  EXPECT_TRUE(save_with("yes\n", kQuestion + "‹yes›\nConfig is overwritten.\n"));
  EXPECT_EQ(statements, (Texts{kCount0, kCountCurrent, "begin exclusive", kDeleteCurrent,
                               insert_of("17264017408"), "commit"}));
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "1", "1"}}));
  EXPECT_EQ(host.records_up_to(2),
            LogRecords{test::says(test::kUpdate, 2,
                                  "Try to update configuration 'weekly' (version 17264017408)", {8})});
}

TEST_F(SaveOver, AGivenVersionIsAskedAndUpdated) {
  put({"weekly", 4294967296});
  EXPECT_TRUE(save_with("Y\n",
                        "Config with name 'weekly' (version 1.0.0) already exists!\nOverwrite it? [Yes/No] "
                        "‹Y›\nConfig is overwritten.\n",
                        4294967296));
  EXPECT_EQ(statements,
            (Texts{"select count(*) from 'Config' where name='weekly' and version=4294967296",
                   "begin exclusive", "delete from 'Config' where name='weekly' and version=4294967296",
                   insert_of("4294967296"), "commit"}));
}

TEST_F(SaveOver, ARowOfNoVersionGivesWayToTheRunningVersion) {
  put({"weekly", 0});
  EXPECT_TRUE(save_with("y\n", kQuestionNoVersion + "‹y›\nConfig is overwritten.\n"));
  EXPECT_EQ(statements, (Texts{kCount0, "begin exclusive", kDelete0, insert_of("17264017408"), "commit"}));
  EXPECT_EQ(host.records_up_to(2),
            LogRecords{test::says(test::kCreate, 2,
                                  "Try to save configuration 'weekly' (version 17264017408)", {8})});
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "1", "1"}}));
}

TEST_F(SaveOver, ARowOfNoVersionBesideOneOfTheRunningVersionEndsInAnUnknownError) {
  put({"weekly", 0});
  put({"weekly", kCurrent});
  EXPECT_FALSE(save_with("y\n", kQuestionNoVersion + "‹y›\n«Unknown error: 0.\n»"));
  EXPECT_EQ(rows(), (Rows{{"weekly", "0", "1", "0"}, {"weekly", "17264017408", "1", "0"}}));
}

TEST_F(SaveOver, ForceAsksNothingAndStillTells) {
  put({"weekly", kCurrent});
  EXPECT_TRUE(save_with("no\n", "Config is overwritten.\n", 0, true));
  EXPECT_TRUE(save_with("", "Config is overwritten.\n", kCurrent, true));
  put({"daily", 0});
  Console console;
  EXPECT_TRUE(save("daily", conf_part, 0, true));
  EXPECT_EQ(console.transcript(), "Config is overwritten.\n");
}

TEST_F(SaveOver, ARefusedInsertLosesTheRowAndStillTells) {
  put({"weekly", kCurrent});
  query("create trigger refuse before insert on Config begin select raise(fail, 'full'); end");
  EXPECT_TRUE(save_with("", "Config is overwritten.\n", 0, true));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(SaveOver, NoLeavesTheRowAndRunsNothing) {
  put({"weekly", kCurrent});
  EXPECT_FALSE(save_with("no\n", kQuestion + "‹no›\nConfig is not overwritten.\n"));
  EXPECT_EQ(statements, (Texts{kCount0, kCountCurrent}));
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "1", "0"}}));
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(SaveOver, AnyOtherAnswerAborts) {
  put({"weekly", kCurrent});
  EXPECT_FALSE(save_with("maybe\n", kQuestion + "‹maybe›\n«Operation aborted!\n»"));
  EXPECT_FALSE(save_with("", kQuestion + "‹EOF›«Operation aborted!\n»"));
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "1", "0"}}));
}

TEST_F(SaveOver, TheArchivesArePackedInsideTheTransaction) {
  put({"weekly", kCurrent});
  int locked = 0;
  host.on_command = [&](const std::string&) -> std::optional<int> {
    if (!test::lock_is_free(database())) ++locked;
    return std::nullopt;
  };
  EXPECT_TRUE(save_with("", "Config is overwritten.\n", 0, true));
  EXPECT_EQ(locked, 2);
}

/// Calls `look` whenever an answer is waited for, then answers.
class WatchedInput : public std::streambuf {
 public:
  WatchedInput(std::string answer, std::function<void()> look)
      : answer_(std::move(answer)), look_(std::move(look)), before_(std::cin.rdbuf(this)) {}
  WatchedInput(const WatchedInput&) = delete;
  WatchedInput& operator=(const WatchedInput&) = delete;
  ~WatchedInput() override { std::cin.rdbuf(before_); }

 protected:
  int_type underflow() override {
    if (gptr() != nullptr) return traits_type::eof();
    look_();
    setg(answer_.data(), answer_.data(), answer_.data() + answer_.size());
    return traits_type::to_int_type(answer_.front());
  }

 private:
  std::string answer_;
  std::function<void()> look_;
  std::streambuf* before_;
};

TEST_F(SaveOver, NoLockIsHeldWhileThePersonIsAsked) {
  put({"weekly", kCurrent});
  Console console;
  bool asked = false;
  const WatchedInput input("yes\n", [&] {
    asked = true;
    EXPECT_TRUE(test::lock_is_free(database()));
  });
  EXPECT_TRUE(save("weekly", conf_full, 0, false));
  EXPECT_TRUE(asked);
}

using SaveFailure = SaveTest;

TEST_F(SaveFailure, StorageThatCannotBeOpenedIsTold) {
  std::filesystem::remove(state_dir());
  EXPECT_FALSE(save_with("", "«Open configuration storage error\n»"));
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(SaveFailure, TheStorageIsClosedAfterAFailureIsTold) {
  { const Storage storage; }
  host.on_command = test::fail_commands("cd ", 1);
  Console console;
  Texts open;
  const test::WatchedOutput told(std::cerr, "'tar' returned non-zero exit status.\n",
                                 [&] { open = open_files(); });
  EXPECT_FALSE(save("weekly", conf_full, 0, false));
  EXPECT_EQ(open, Texts{database()});
}

TEST_F(SaveFailure, WhatTheOpeningThrowsLeaves) {
  host.entry_points.begin = [](int, const ClUnilogFname&, const char*, int) { throw XTOOStatus(9, true); };
  Console console;
  EXPECT_EQ(test::thrown_by<XTOOStatus>([] { save("weekly", conf_full, 0, false); }).Status(), 9);
  EXPECT_EQ(console.transcript(), "");
}

TEST_F(SaveFailure, AFailedTarIsToldAndNothingIsCommitted) {
  host.on_command = test::fail_commands("cd " + config_dir(), 2);
  EXPECT_FALSE(save_with("", "«'tar' returned non-zero exit status.\n»"));
  EXPECT_EQ(statements, (Texts{kCount0, kCountCurrent, "begin exclusive", kDelete0, kDeleteCurrent}));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(SaveFailure, EachExceptionHasItsMessage) {
  const std::vector<std::pair<std::function<void()>, std::string>> ladder = {
      {[] { throw XNotFound(0, true); }, "Failed to execute external command.\n"},
      {[] { throw XExternalFailure(36, true); }, "'tar' returned non-zero exit status.\n"},
      {[] { throw XChdir(0, true, "/a"); }, "'tar' returned non-zero exit status.\n"},
      {[] { throw XCancel(0, true); }, "Operation aborted!\n"},
      {[] { throw XAmbiguity(0, true); }, "Unknown error: 0.\n"},
      {[] { throw XConstraint(7, "text", false); }, "Unknown error: 7.\n"},
      {[] { throw XTOOStatus(1234, true); }, "Unknown error: 1234.\n"},
      {[] { throw std::runtime_error("x"); }, "Unknown error (while saving configuration)!\n"},
      {[] { throw 1; }, "Unknown error (while saving configuration)!\n"},
  };
  put({"weekly", kCurrent});
  for (const auto& [fail, message] : ladder) {
    host.on_command = [&fail = fail](const std::string&) -> std::optional<int> {
      fail();
      return 0;
    };
    EXPECT_FALSE(save_with("", "«" + message + "»", 0, true));
    EXPECT_FALSE(save_with("", "«" + message + "»", 5));
    EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "1", "0"}}));
    EXPECT_TRUE(test::lock_is_free(database()));
    EXPECT_EQ(temp_files(), Texts());
  }
}

TEST_F(SaveFailure, ATemporaryFileThatCannotBeMadeIsToldByItsStatus) {
  std::filesystem::remove(temp_dir());
  EXPECT_FALSE(save_with("", "«Unknown error: 17.\n»"));
  std::filesystem::create_directory(temp_dir());
}

TEST_F(SaveFailure, ARefusedInsertIsNotTold) {
  test::Database(database()).run("create table Config (name, version)");
  EXPECT_TRUE(save_with("", ""));
  EXPECT_EQ(test::Database(database()).value("select count(*) from Config"), "0");
}

TEST_F(SaveFailure, ATableThatCannotBeReadCountsAsHoldingTheName) {
  test::Database(database()).run("create table Config (a)");
  EXPECT_FALSE(save_with("no\n", kQuestionNoVersion + "‹no›\nConfig is not overwritten.\n"));
}

}  // namespace
