#include "confsave.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <locale>
#include <map>
#include <optional>
#include <regex>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "support/console.h"
#include "support/gateway.h"
#include "support/grouped_digits.h"

namespace {

namespace fs = std::filesystem;

using ConfSave::App;
using ConfSave::conf_corlu;
using ConfSave::conf_full;
using ConfSave::conf_part;
using ConfSave::conftype;
using ConfSave::int64;
using ConfSave::XAmbiguity;
using ConfSave::XCancel;
using ConfSave::XChdir;
using ConfSave::XConstraint;
using ConfSave::XExternalFailure;
using ConfSave::XNotFound;
using test::GroupedDigits;
using test::kCannotOpen;
using test::kChooseLayout;
using test::kCreate;
using test::kCreateTable;
using test::kCurrent;
using test::kDelete;
using test::kList;
using test::kLoad;
using test::kPack;
using test::kPackCorlu;
using test::kPackEtc;
using test::kPackFull;
using test::kPackPart;
using test::kSelectAll;
using test::kTablesMade;
using test::kTryTables;
using test::LogRecord;
using test::LogRecords;
using test::Rows;
using test::says;
using test::Texts;
using test::operator+;

using Bytes = std::vector<char>;
using Files = std::map<std::string, std::string>;
using Raise = std::function<void()>;
/// What was seen, and what the command answered.
using Saved = std::pair<std::string, bool>;

const std::string kDeleteWeekly = "delete from 'Config' where name='weekly' and version=0";
const std::string kSelectWeekly =
    "select keybase, etc, type, id from 'Config' where name!='corlu-config' and name='weekly' and "
    "version=0";
const std::string kSelectNobody =
    "select keybase, etc, type, id from 'Config' where name!='corlu-config' and name='nobody' and "
    "version=0";

std::string insert_statement(const std::string& name, const std::string& type = "1") {
  return "insert into 'Config' (name,keybase,etc,version, save_time, type) values ('" + name +
         "',?,?,0,<now>," + type + ")";
}

const Texts kUnpack{
    "tar xzf <archive> --exclude corlu.serv -C /mnt/main/etc//<scratch> 2>/dev/null",
    "cp -alf /mnt/main/etc//<scratch>/* /mnt/main/etc//. 2>/dev/null",
    "rm -rf /mnt/main/etc//<scratch> 2>/dev/null",
    "tar xzf <archive> --exclude corlu.serv -C <root>/config//<scratch> 2>/dev/null",
    "cp -alf <root>/config//<scratch>/* <root>/config//. 2>/dev/null",
    "rm -rf <root>/config//<scratch> 2>/dev/null",
};

LogRecords refused_as_taken(const std::string& name) {
  return {says(kCreate, 2,
               "SQL error: UNIQUE constraint failed: Config.name, Config.version. Query: " +
                   insert_statement(name) + " (return code: 19)",
               {4}),
          says(kCreate, 1, "sqlite3_finalize() return code 19", {4})};
}

const std::string kAskToSave = "Save current configuration [Y/n]? ";
const std::string kAskName = "Name for the current configuration: ";
const std::string kWarning =
    "You are about to overwrite your existing configuration.\n"
    "This is unsafe. To continue, type \n"
    ">>> Yes, do as I say\n"
    "in response to the prompt:\n"
    ">>> ";
/// What is typed to restore without saving first, and what is then seen before the restore.
const std::string kRecklessly = "n\nYes, do as I say\n";
const std::string kReckless =
    "Save current configuration [Y/n]? ‹n›\n"
    "You are about to overwrite your existing configuration.\n"
    "This is unsafe. To continue, type \n"
    ">>> Yes, do as I say\n"
    "in response to the prompt:\n"
    ">>> ‹Yes, do as I say›\n";
/// The same when the current configuration is saved as "before", a free name.
const std::string kCarefully = "\nbefore\n";
const std::string kCareful =
    "Save current configuration [Y/n]? ‹›\n"
    "Name for the current configuration: ‹before›\n"
    "Kelmor configuration saved.\n";

std::string hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "x'";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += {kDigits[byte >> 4U], kDigits[byte & 0xfU]};
  }
  return text + "'";
}

/// Throws a copy of `exception`, of exactly its type.
template <class Exception>
Raise throwing(Exception exception) {
  return [exception] { throw exception; };
}

/// Stands before the standard input, and does something whenever a line is waited for.
class WatchedInput : public std::streambuf {
 public:
  explicit WatchedInput(std::function<void()> on_question)
      : on_question_(std::move(on_question)), before_(std::cin.rdbuf(this)) {}
  WatchedInput(const WatchedInput&) = delete;
  WatchedInput& operator=(const WatchedInput&) = delete;
  ~WatchedInput() override { std::cin.rdbuf(before_); }

 protected:
  int_type underflow() override {
    if (ended_) return traits_type::eof();
    on_question_();
    line_.clear();
    while (!ended_ && (line_.empty() || line_.back() != '\n')) {
      const int_type letter = before_->sbumpc();
      ended_ = traits_type::eq_int_type(letter, traits_type::eof());
      if (!ended_) line_ += traits_type::to_char_type(letter);
    }
    if (line_.empty()) return traits_type::eof();
    setg(line_.data(), line_.data(), line_.data() + line_.size());
    return traits_type::to_int_type(line_.front());
  }

 private:
  std::function<void()> on_question_;
  std::streambuf* before_;
  std::string line_;
  bool ended_ = false;
};

/// Standard output that is shown line by line, and breaks after so many of them. The host has asked for
/// exceptions then, and untied its standard error, which would meet the broken output otherwise.
class BreakingOutput : public std::streambuf {
 public:
  explicit BreakingOutput(int lines)
      : lines_(lines), before_(std::cout.rdbuf(this)), tied_(std::cerr.tie(nullptr)) {
    std::cout.exceptions(std::ios::badbit);
  }
  BreakingOutput(const BreakingOutput&) = delete;
  BreakingOutput& operator=(const BreakingOutput&) = delete;
  ~BreakingOutput() override {
    std::cout.exceptions(std::ios::goodbit);
    std::cout.rdbuf(before_);
    std::cerr.tie(tied_);
  }

 protected:
  int_type overflow(int_type letter) override {
    if (lines_ == 0) throw std::runtime_error("the terminal is gone");
    const char one = traits_type::to_char_type(letter);
    before_->sputc(one);
    if (one != '\n') return letter;
    --lines_;
    before_->pubsync();
    return letter;
  }

 private:
  int lines_;
  std::streambuf* before_;
  std::ostream* tied_;
};

/// A host that wants an exception at the end of its input.
class ThrowingAtEndOfInput {
 public:
  ThrowingAtEndOfInput() { std::cin.exceptions(std::ios::eofbit); }
  ThrowingAtEndOfInput(const ThrowingAtEndOfInput&) = delete;
  ThrowingAtEndOfInput& operator=(const ThrowingAtEndOfInput&) = delete;
  ~ThrowingAtEndOfInput() { std::cin.exceptions(std::ios::goodbit); }
};

/// A host that has untied its input from its output.
class Untied {
 public:
  Untied() : before_(std::cin.tie(nullptr)) {}
  Untied(const Untied&) = delete;
  Untied& operator=(const Untied&) = delete;
  ~Untied() { std::cin.tie(before_); }

 private:
  std::ostream* before_;
};

class Shell : public test::Gateway {
 protected:
  Shell() { make_configuration(); }

  /// What is seen and typed while `command` runs, which must ask for all that is typed. Nobody has to
  /// wait while a person thinks, and nothing is left when it is over.
  std::string dialogue(const std::string& typed, const std::function<void()>& command) {
    recorder.clear();
    host.records.clear();
    host.commands.clear();
    test::Console console(typed);
    {
      const WatchedInput watched([this] { expect_nothing_held(); });
      command();
    }
    EXPECT_EQ(console.unread(), "");
    expect_nothing_held();
    EXPECT_EQ(open_files(), Texts());
    return console.transcript();
  }

  std::string lst() {
    return dialogue("", [] { App::lst(); });
  }

  Saved save(const std::string& typed = "", const std::string& name = "weekly", conftype type = conf_full) {
    bool stored = false;
    std::string seen = dialogue(typed, [&] { stored = App::save(name, type); });
    return {seen, stored};
  }

  std::string del(const std::string& name = "weekly") {
    return dialogue("", [&] { App::del(name); });
  }

  std::string load(const std::string& typed, const std::string& name = "weekly") {
    return dialogue(typed, [&] { App::load(name); });
  }

  void make_table() { test::Database(database()).run(kCreateTable); }

  void put(const test::RowSpec& row) {
    if (!test::exists(database())) make_table();
    test::insert_row(database(), row);
  }

  /// A gateway of former times: one file in each archive.
  void put_snapshot(const std::string& name = "weekly", int64 version = 0) {
    const std::string dir = root() + "/former/";
    fs::create_directories(dir + "user");
    test::write_file(dir + "user/gateway.conf", "former gateway\n");
    test::write_file(dir + "failover.ini", "former failover\n");
    const Bytes keybase = test::make_archive(dir, "user/gateway.conf");
    const Bytes etc = test::make_archive(dir, "failover.ini");
    put({name, version, 1, "1000", "NULL", hex(keybase), hex(etc)});
    sizes = "sz0=" + std::to_string(keybase.size()) + ", sz1=" + std::to_string(etc.size());
  }

  /// All rows: id, name, version, type, save_time, load_time.
  Rows rows() const {
    return query("select id, name, version, type, save_time, load_time from Config order by id");
  }

  Texts statements() const { return without_now(recorder.statements()); }

  /// Every file of the gateway.
  Files gateway() const {
    Files files = test::tree(config_dir());
    for (const auto& [name, content] : test::tree(etc_dir())) files[etc_dir() + name] = content;
    return files;
  }

  /// The gateway `files` after the snapshot of former times was restored into it.
  static Files restored(Files files) {
    files["user/gateway.conf"] = "former gateway\n";
    files["/mnt/main/etc/failover.ini"] = "former failover\n";
    files.erase("user/config.db");
    files.erase("user/config.idx");
    return files;
  }

  /// Throws from the command of this number, counted from 1. Those before run.
  void fail_at(std::size_t number, Raise raise) {
    host.on_command = [this, number, raise = std::move(raise)](const std::string&) -> std::optional<int> {
      if (host.commands.size() == number) raise();
      return std::nullopt;
    };
  }

  /// Answers `result` instead of running the command of this number.
  void end_with(int result, std::size_t number) {
    host.on_command = [this, result, number](const std::string&) -> std::optional<int> {
      if (host.commands.size() == number) return result;
      return std::nullopt;
    };
  }

  /// The host's log throws when `function` begins a record.
  void fail_in_log(const std::string& function, Raise raise) {
    host.on_record = [function, raise = std::move(raise)](const std::string& name) {
      if (name == function) raise();
    };
  }

  void keep_all_rows() {
    test::Database(database())
        .run("create trigger keep before delete on Config begin select raise(abort, 'kept'); end");
  }

  void make_storage_unopenable() { setenv("KELMOR_DYNAMIC_DIR", (root() + "/missing").c_str(), 1); }

  /// A file that SQLite opens and then finds to be no database.
  void damage_database() {
    test::write_file(database(), std::string(4096, 'x'));
    damaged = true;
  }

  test::StatementRecorder recorder;
  std::string sizes;

 private:
  void expect_nothing_held() const {
    EXPECT_EQ(temp_files(), Texts());
    if (damaged || !test::exists(database())) return;
    EXPECT_TRUE(test::lock_is_free(database()));
    EXPECT_EQ(query("pragma integrity_check"), Rows{{"ok"}});
  }

  bool damaged = false;
};

const Rows kWeeklyOfFormerTimes{{"1", "weekly", "0", "2", "1000", "2000"}};

test::RowSpec weekly_of_former_times() { return {"weekly", 0, 2, "1000", "2000"}; }

// ---------------------------------------------------------------------------------------------------
// lst

using AppLst = Shell;

TEST_F(AppLst, AnEmptyStoragePrintsNothing) {
  EXPECT_EQ(lst(), "");
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, kSelectAll}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kList, 2, "Requested configuration list is empty (version=0)", {8})}));
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AppLst, EveryRecordIsALineInTheOrderOfTheStorage) {
  put({"weekly", kCurrent, 1, "1488377100", "1488447000"});
  put({"alpha", 0, 3, "1488377100"});
  put({"monthly", 4294967296, 7, "0"});
  EXPECT_EQ(
      lst(),
      "\"weekly\",\tversion 4.5.4,\tfull, saved on 01.03.2017 at 14:05, loaded at 02.03.2017 at 09:30\n"
      "\"alpha\",\tcorlu, saved on 01.03.2017 at 14:05, never loaded\n"
      "\"monthly\",\tversion 1.0.0,\t, saved on 01.01.1970 at 00:00, never loaded\n");
  EXPECT_EQ(statements(), Texts{kSelectAll});
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade}));
}

TEST_F(AppLst, EveryVersionOfANameIsListed) {
  put({"weekly", 9223372036854775807, 2});
  put({"weekly", 0, 2});
  put({"weekly", -1, 2});
  EXPECT_EQ(lst(),
            "\"weekly\",\tversion 2147483647.255.255,\tpart, saved on 01.01.1970 at 00:16, never loaded\n"
            "\"weekly\",\tpart, saved on 01.01.1970 at 00:16, never loaded\n"
            "\"weekly\",\tversion -1.255.255,\tpart, saved on 01.01.1970 at 00:16, never loaded\n");
}

TEST_F(AppLst, ThePacketFiltersOwnRecordIsLeftOut) {
  put({"corlu-config", 0, 3});
  put({"weekly", 0});
  put({"corlu-config", kCurrent, 3});
  EXPECT_EQ(lst(), "\"weekly\",\tfull, saved on 01.01.1970 at 00:16, never loaded\n");
}

TEST_F(AppLst, StorageThatCannotBeOpenedPrintsNothing) {
  make_storage_unopenable();
  EXPECT_EQ(lst(), "");
  EXPECT_EQ(records(), LogRecords{kCannotOpen});
  EXPECT_EQ(statements(), Texts());
}

TEST_F(AppLst, AFileThatIsNoDatabasePrintsNothing) {
  damage_database();
  EXPECT_EQ(lst(), "");
}

TEST_F(AppLst, ARowOfAForeignTableWithoutANameIsLeftOut) {
  test::Database(database())
      .run("create table Config (name, version, keybase, etc, type, save_time, load_time)");
  put({"weekly", 0});
  test::Database(database()).run("insert into Config (version) values (0)");
  EXPECT_EQ(lst(), "\"weekly\",\tfull, saved on 01.01.1970 at 00:16, never loaded\n");
}

TEST_F(AppLst, WhateverTheListingThrowsIsTold) {
  for (const Raise& raise :
       {throwing(XCancel(0, true)), throwing(std::logic_error("no name")), throwing(7)}) {
    fail_in_log("List", raise);
    EXPECT_EQ(lst(), "«Failed to open storage.\n»");
    host.reset();
  }
}

TEST_F(AppLst, WhateverTheOpeningThrowsIsTold) {
  for (const Raise& raise : {throwing(XNotFound(0, true)), throwing(XTOOStatus(5, true)),
                             throwing(std::runtime_error("no disk")), throwing(7)}) {
    fail_in_log("Storage", raise);
    EXPECT_EQ(lst(), "«Failed to open storage.\n»");
    host.reset();
  }
}

TEST_F(AppLst, LinesWrittenBeforeAFailureStay) {
  put({"weekly", 0});
  put({"daily", 0});
  put({"hourly", 0});
  EXPECT_EQ(dialogue("",
                     [] {
                       const BreakingOutput broken(2);
                       App::lst();
                     }),
            "\"weekly\",\tfull, saved on 01.01.1970 at 00:16, never loaded\n"
            "\"daily\",\tfull, saved on 01.01.1970 at 00:16, never loaded\n"
            "«Failed to open storage.\n»");
}

// ---------------------------------------------------------------------------------------------------
// save

using AppSave = Shell;

const std::string kFailedToSave = "«Failed to save configuration 'weekly'.\n»";
const std::string kAskWeekly = "Config 'weekly' exists. Overwrite? ";
const std::string kOverwriteWeekly = "Config 'weekly' exists. Overwrite? ‹y›\n";

TEST_F(AppSave, ANewNameIsStoredSilently) {
  EXPECT_EQ(save(), Saved("", true));
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, insert_statement("weekly")}));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade,
                                   says(kCreate, 2, "Try to save configuration 'weekly' (version 0)", {8}),
                                   says(kCreate, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppSave, TheTypeDecidesWhatIsStored) {
  EXPECT_EQ(save("", "part", conf_part), Saved("", true));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart}));
  EXPECT_EQ(save("", "corlu", conf_corlu), Saved("", true));
  EXPECT_EQ(commands(), Texts{kPackCorlu});
  EXPECT_EQ(save("", "seven", static_cast<conftype>(7)), Saved("", true));
  EXPECT_EQ(rows(), (Rows{{"1", "part", "0", "2", "<now>", "NULL"},
                          {"2", "corlu", "0", "3", "<now>", "NULL"},
                          {"3", "seven", "0", "7", "<now>", "NULL"}}));
}

TEST_F(AppSave, ATakenNameIsOverwrittenOnYes) {
  put(weekly_of_former_times());
  EXPECT_EQ(save("y\n"), Saved("Config 'weekly' exists. Overwrite? ‹y›\n", true));
  EXPECT_EQ(statements(), (Texts{insert_statement("weekly"), kDeleteWeekly, insert_statement("weekly")}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kCreate, 2, "Try to save configuration 'weekly' (version 0)", {8})} +
             refused_as_taken("weekly") +
             LogRecords{says(kDelete, 4, "config name 'weekly'"),
                        says(kCreate, 2, "Try to save configuration 'weekly' (version 0)", {8}),
                        says(kCreate, 4, "sqlite3_total_changes: 2", {4})}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull, kPackEtc, kPackFull}));
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppSave, ACapitalYOverwritesToo) {
  put(weekly_of_former_times());
  EXPECT_EQ(save("Y\n", "weekly", conf_part), Saved("Config 'weekly' exists. Overwrite? ‹Y›\n", true));
  EXPECT_EQ(statements(),
            (Texts{insert_statement("weekly", "2"), kDeleteWeekly, insert_statement("weekly", "2")}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart, kPackEtc, kPackPart}));
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "0", "2", "<now>", "NULL"}}));
}

TEST_F(AppSave, AnyOtherAnswerLeavesTheOldRow) {
  put(weekly_of_former_times());
  for (const std::string answer : {"yes", "YES", "Yes", "n",   "N",   "no", "NO", "",   " ", "y ",
                                   " y",  "Y ",  " Y",  "\ty", "y\r", "yy", "Yy", "yn", "j", "1"}) {
    EXPECT_EQ(save(answer + "\n"), Saved("Config 'weekly' exists. Overwrite? ‹" + answer + "›\n", false));
    EXPECT_EQ(statements(), Texts{insert_statement("weekly")});
  }
  EXPECT_EQ(rows(), kWeeklyOfFormerTimes);
}

TEST_F(AppSave, TheEndOfInputLeavesTheOldRow) {
  put(weekly_of_former_times());
  EXPECT_EQ(save(""), Saved("Config 'weekly' exists. Overwrite? ‹EOF›", false));
  EXPECT_EQ(statements(), Texts{insert_statement("weekly")});
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kCreate, 2, "Try to save configuration 'weekly' (version 0)", {8})} +
             refused_as_taken("weekly")));
  EXPECT_EQ(rows(), kWeeklyOfFormerTimes);
}

TEST_F(AppSave, AnAnswerNeedsNoLineEnd) {
  put(weekly_of_former_times());
  EXPECT_EQ(save("y"), Saved("Config 'weekly' exists. Overwrite? ‹y›\n‹EOF›", true));
}

TEST_F(AppSave, OneLineIsTheAnswerAndTheNextIsLeft) {
  put(weekly_of_former_times());
  test::Console console("n\ny\n");
  EXPECT_FALSE(App::save("weekly", conf_full));
  EXPECT_EQ(console.unread(), "y\n");
}

TEST_F(AppSave, TheQuestionIsSeenInAHostThatUntiedItsStreams) {
  put(weekly_of_former_times());
  const Untied untied;
  EXPECT_EQ(save("n\n"), Saved("Config 'weekly' exists. Overwrite? ‹n›\n", false));
}

TEST_F(AppSave, SavedAgainItAsksAgain) {
  EXPECT_EQ(save(), Saved("", true));
  EXPECT_EQ(save("n\n"), Saved("Config 'weekly' exists. Overwrite? ‹n›\n", false));
  EXPECT_EQ(save("Y\n"), Saved("Config 'weekly' exists. Overwrite? ‹Y›\n", true));
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppSave, OtherNamesAndVersionsAreNotTouched) {
  put(weekly_of_former_times());
  put({"weekly", kCurrent});
  put({"weekly", 1});
  put({"Weekly", 0});
  put({"daily", 0});
  EXPECT_EQ(save("y\n"), Saved(kOverwriteWeekly, true));
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "17264017408", "1", "1000", "NULL"},
                          {"3", "weekly", "1", "1", "1000", "NULL"},
                          {"4", "Weekly", "0", "1", "1000", "NULL"},
                          {"5", "daily", "0", "1", "1000", "NULL"},
                          {"6", "weekly", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppSave, ANameOfAnotherVersionIsFree) {
  put({"weekly", kCurrent});
  EXPECT_EQ(save(), Saved("", true));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"},
                          {"2", "weekly", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppSave, NamesAreTakenAsTheyCome) {
  const std::string long_name(100, 'n');
  for (const std::string& name : {std::string(), std::string("two words"), std::string("*"), long_name,
                                  std::string("corlu-config")}) {
    EXPECT_EQ(save("", name), Saved("", true));
    EXPECT_EQ(save("n\n", name), Saved("Config '" + name + "' exists. Overwrite? ‹n›\n", false));
  }
  EXPECT_EQ(rows(), (Rows{{"1", "", "0", "1", "<now>", "NULL"},
                          {"2", "two words", "0", "1", "<now>", "NULL"},
                          {"3", "*", "0", "1", "<now>", "NULL"},
                          {"4", long_name, "0", "1", "<now>", "NULL"},
                          {"5", "corlu-config", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppSave, ARefusedStatementIsNotTold) {
  EXPECT_EQ(save("", "o'hare"), Saved("", true));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade,
                                   says(kCreate, 2, "Try to save configuration 'o'hare' (version 0)", {8}),
                                   says(kCreate, 2,
                                        "SQL error: near \"hare\": syntax error. Query: " +
                                            insert_statement("o'hare") + " (return code: 1)",
                                        {4}),
                                   says(kCreate, 1, "Error: sqlite3_stmt *plineInfo == NULL")}));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppSave, StorageThatCannotBeOpenedIsNotTold) {
  make_storage_unopenable();
  EXPECT_EQ(save(), Saved("", true));
  EXPECT_EQ(records(), LogRecords{kCannotOpen});
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AppSave, AFileThatIsNoDatabaseIsNotTold) {
  damage_database();
  EXPECT_EQ(save(), Saved("", true));
}

TEST_F(AppSave, AFailedTarIsTold) {
  host.on_command = test::fail_commands("cd /mnt/main/etc/ && tar czf ", 7);
  EXPECT_EQ(save(), Saved("'tar' returned non-zero exit status.\n", false));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kPack, 1, "failed to create tar archive with error code: 7", {4})}));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppSave, AMissingConfigurationDirectoryIsToldAsTarsFailure) {
  fs::remove_all(config_dir());
  EXPECT_EQ(save(), Saved("'tar' returned non-zero exit status.\n", false));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppSave, AConfigurationDatabaseOutOfReachIsToldAsTarsFailure) {
  fs::remove_all(config_dir() + "user");
  test::write_file(config_dir() + "user", "no directory\n");
  EXPECT_EQ(save(), Saved("'tar' returned non-zero exit status.\n", false));
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AppSave, EveryExternalFailureIsToldAsTarsFailure) {
  for (const Raise& raise :
       {throwing(XExternalFailure(36, true)), throwing(XChdir(0, true, "/srv/gateway"))}) {
    for (const std::size_t command : {1U, 2U}) {
      fail_at(command, raise);
      EXPECT_EQ(save(), Saved("'tar' returned non-zero exit status.\n", false));
    }
  }
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppSave, ACommandThatIsNotFoundIsTold) {
  fail_at(2, throwing(XNotFound(0, true)));
  EXPECT_EQ(save(), Saved("Failed to execute external command.\n", false));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppSave, AConstraintOfTheHostAsksAsATakenNameDoes) {
  fail_at(1, throwing(XConstraint(0, "quota", false)));
  EXPECT_EQ(save("y\n"), Saved(kOverwriteWeekly, true));
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, kDeleteWeekly, insert_statement("weekly")}));
}

TEST_F(AppSave, AnyOtherExceptionIsToldOnStandardError) {
  put({"daily", 0});
  for (const Raise& raise :
       {throwing(XCancel(0, true)), throwing(XAmbiguity(0, true)), throwing(XTOOStatus(5, true)),
        throwing(XTOOStatus(17, "No space left on device", false)), throwing(std::runtime_error("no")),
        throwing(7)}) {
    fail_at(1, raise);
    EXPECT_EQ(save(), Saved(kFailedToSave, false));
    EXPECT_EQ(statements(), Texts());
  }
  EXPECT_EQ(rows(), (Rows{{"1", "daily", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppSave, AMissingDirectoryForTemporaryFilesIsToldOnStandardError) {
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  EXPECT_EQ(save(), Saved(kFailedToSave, false));
  EXPECT_EQ(save("", "o'hare"), Saved("«Failed to save configuration 'o'hare'.\n»", false));
}

TEST_F(AppSave, WhateverTheOpeningThrowsIsToldOnStandardError) {
  // Some of them would be told otherwise had the packing thrown them.
  for (const Raise& raise :
       {throwing(XNotFound(0, true)), throwing(XConstraint(0, true)), throwing(XExternalFailure(36, true)),
        throwing(XTOOStatus(5, true)), throwing(std::runtime_error("no disk")), throwing(7)}) {
    fail_in_log("Storage", raise);
    EXPECT_EQ(save(), Saved(kFailedToSave, false));
    host.reset();
  }
}

TEST_F(AppSave, AnyExceptionOfTheSecondTryIsToldOnStandardErrorAndTheOldRowIsGone) {
  for (const Raise& raise :
       {throwing(XNotFound(0, true)), throwing(XExternalFailure(36, true)),
        throwing(XChdir(0, true, "/srv/gateway")), throwing(XConstraint(0, true)),
        throwing(XCancel(0, true)), throwing(XAmbiguity(0, true)), throwing(XTOOStatus(5, true)),
        throwing(std::runtime_error("no")), throwing(7)}) {
    put(weekly_of_former_times());
    fail_at(3, raise);
    EXPECT_EQ(save("y\n"), Saved(kOverwriteWeekly + kFailedToSave, false));
    EXPECT_EQ(statements(), (Texts{insert_statement("weekly"), kDeleteWeekly}));
    EXPECT_EQ(rows(), Rows());
  }
}

TEST_F(AppSave, ATarThatFailsAtTheSecondTryIsToldOnStandardErrorAndTheOldRowIsGone) {
  put(weekly_of_former_times());
  end_with(2, 4);
  EXPECT_EQ(save("y\n"), Saved(kOverwriteWeekly + kFailedToSave, false));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kCreate, 2, "Try to save configuration 'weekly' (version 0)", {8})} +
             refused_as_taken("weekly") +
             LogRecords{says(kDelete, 4, "config name 'weekly'"),
                        says(kPack, 1, "failed to create tar archive with error code: 2", {4})}));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppSave, ANameStillTakenAtTheSecondTryIsToldOnStandardError) {
  put(weekly_of_former_times());
  keep_all_rows();
  EXPECT_EQ(save("y\n"), Saved(kOverwriteWeekly + kFailedToSave, false));
  EXPECT_EQ(rows(), kWeeklyOfFormerTimes);
}

TEST_F(AppSave, AnExceptionOfTheInputIsToldOnStandardError) {
  put(weekly_of_former_times());
  bool stored = true;
  EXPECT_EQ(dialogue("",
                     [&] {
                       const ThrowingAtEndOfInput end;
                       stored = App::save("weekly", conf_full);
                     }),
            kAskWeekly + "‹EOF›" + kFailedToSave);
  EXPECT_FALSE(stored);
  EXPECT_EQ(rows(), kWeeklyOfFormerTimes);
}

TEST_F(AppSave, AnExceptionOfTheOutputIsToldOnStandardError) {
  const std::vector<std::pair<Raise, std::string>> failures{
      {throwing(XNotFound(0, true)), "Failed to execute external command."},
      {throwing(XExternalFailure(36, true)), "'tar' returned non-zero exit status."}};
  for (const auto& [raise, message] : failures) {
    fail_at(1, raise);
    bool stored = true;
    EXPECT_EQ(dialogue("",
                       [&] {
                         const BreakingOutput broken(0);
                         stored = App::save("weekly", conf_full);
                       }),
              kFailedToSave)
        << message;
    EXPECT_FALSE(stored);
  }
}

// ---------------------------------------------------------------------------------------------------
// del

using AppDel = Shell;

TEST_F(AppDel, AStoredNameIsDeletedSilently) {
  put(weekly_of_former_times());
  EXPECT_EQ(del(), "");
  EXPECT_EQ(statements(), Texts{kDeleteWeekly});
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, says(kDelete, 4, "config name 'weekly'")}));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppDel, OnlyTheRowOfNoVersionGoes) {
  put({"weekly", kCurrent});
  put({"weekly", 0});
  put({"weekly", 1});
  put({"Weekly", 0});
  put({"weekly2", 0});
  EXPECT_EQ(del(), "");
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"},
                          {"3", "weekly", "1", "1", "1000", "NULL"},
                          {"4", "Weekly", "0", "1", "1000", "NULL"},
                          {"5", "weekly2", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppDel, AMissingNameIsSilent) {
  EXPECT_EQ(del(), "");
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, kDeleteWeekly}));
}

TEST_F(AppDel, TheNameIsNoPattern) {
  put(weekly_of_former_times());
  EXPECT_EQ(del("*"), "");
  EXPECT_EQ(statements(), Texts{"delete from 'Config' where name='*' and version=0"});
  EXPECT_EQ(rows(), kWeeklyOfFormerTimes);
}

TEST_F(AppDel, ARefusedStatementIsSilent) {
  put(weekly_of_former_times());
  keep_all_rows();
  EXPECT_EQ(del(), "");
  EXPECT_EQ(records(),
            (LogRecords{
                kTryTables, kTablesMade, says(kDelete, 4, "config name 'weekly'"),
                says(kDelete, 2, "SQL error: kept. Query: " + kDeleteWeekly + " (return code: 19)", {4})}));
  EXPECT_EQ(rows(), kWeeklyOfFormerTimes);
}

TEST_F(AppDel, StorageThatCannotBeOpenedIsSilent) {
  make_storage_unopenable();
  EXPECT_EQ(del(), "");
  EXPECT_EQ(records(), LogRecords{kCannotOpen});
}

TEST_F(AppDel, ItWaitsForAnotherProcess) {
  put(weekly_of_former_times());
  std::string seen = "not seen";
  {
    const test::LockHolder other(database(), 300);
    test::Console console;
    App::del("weekly");
    seen = console.transcript();
  }
  EXPECT_EQ(seen, "");
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppDel, ANameThatIsNotFoundIsTold) {
  put(weekly_of_former_times());
  fail_in_log("Delete", throwing(XNotFound(0, true)));
  EXPECT_EQ(del(), "No such config.\n");
  EXPECT_EQ(rows(), kWeeklyOfFormerTimes);
}

class AppDelThrowing : public Shell {
 protected:
  /// What is thrown where `function` logs leaves the command, unchanged and untold.
  template <class Exception>
  Exception leaves(const std::string& function, const Exception& exception) {
    fail_in_log(function, throwing(exception));
    std::optional<Exception> left;
    EXPECT_EQ(dialogue("", [&] { left = test::thrown_by<Exception>([] { App::del("weekly"); }); }), "");
    host.reset();
    return *left;
  }
};

TEST_F(AppDelThrowing, EveryExceptionOfTheDeletingButNotFoundLeaves) {
  EXPECT_EQ(leaves("Delete", XExternalFailure(36, true)).Status(), 36);
  EXPECT_EQ(leaves("Delete", XChdir(4, true, "/srv")).Directory(), "/srv");
  EXPECT_EQ(leaves("Delete", XCancel(1, true)).Status(), 1);
  EXPECT_EQ(leaves("Delete", XAmbiguity(2, true)).Status(), 2);
  EXPECT_STREQ(leaves("Delete", XConstraint(0, "quota", false)).ErrorMessage(), "quota");
  EXPECT_EQ(leaves("Delete", XTOOStatus(5, true)).Status(), 5);
  EXPECT_STREQ(leaves("Delete", std::runtime_error("no")).what(), "no");
  EXPECT_EQ(leaves("Delete", 7), 7);
}

TEST_F(AppDelThrowing, EveryExceptionOfTheOpeningLeaves) {
  EXPECT_EQ(leaves("Storage", XNotFound(3, true)).Status(), 3);
  EXPECT_EQ(leaves("Storage", XTOOStatus(5, true)).Status(), 5);
  EXPECT_STREQ(leaves("Storage", std::runtime_error("no")).what(), "no");
  EXPECT_EQ(leaves("Storage", 7), 7);
}

// ---------------------------------------------------------------------------------------------------
// load

using AppLoad = Shell;

const std::string kLoadWeekly = "Loading configuration 'weekly'.\n";
const std::string kLoadNobody = "Loading configuration 'nobody'.\n";
const std::string kNotFound = "Unknown error: 0.\n";
const std::string kStampWeekly = "update 'Config' set load_time=<now> where id=1";
const std::string kInsertBefore = insert_statement("before");
/// What is typed to overwrite "before", and what is then seen.
const std::string kOverBefore = "\nbefore\ny\n";
const std::string kOverwriteBefore =
    "Save current configuration [Y/n]? ‹›\n"
    "Name for the current configuration: ‹before›\n"
    "Config 'before' exists. Overwrite? ‹y›\n";

TEST_F(AppLoad, DeclinedAndConfirmedItRestores) {
  put_snapshot();
  const Files before = gateway();
  EXPECT_EQ(load("n\nYes, do as I say\n"),
            "Save current configuration [Y/n]? ‹n›\n"
            "You are about to overwrite your existing configuration.\n"
            "This is unsafe. To continue, type \n"
            ">>> Yes, do as I say\n"
            "in response to the prompt:\n"
            ">>> ‹Yes, do as I say›\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(statements(), (Texts{kSelectWeekly, kStampWeekly}));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, says(kLoad, 2, "Try to load"),
                                   says(kLoad, 2, "sqlite3_column_bytes: " + sizes, {4, 4}),
                                   says(kLoad, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(commands(), kUnpack);
  EXPECT_EQ(gateway(), restored(before));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}}));
}

TEST_F(AppLoad, ByDefaultItSavesFirst) {
  put_snapshot();
  const Files before = gateway();
  EXPECT_EQ(load("\nbefore\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(statements(), (Texts{kInsertBefore, kSelectWeekly, kStampWeekly}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kCreate, 2, "Try to save configuration 'before' (version 0)", {8}),
                        says(kCreate, 4, "sqlite3_total_changes: 1", {4}), says(kLoad, 2, "Try to load"),
                        says(kLoad, 2, "sqlite3_column_bytes: " + sizes, {4, 4}),
                        says(kLoad, 4, "sqlite3_total_changes: 2", {4})}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull} + kUnpack));
  EXPECT_EQ(gateway(), restored(before));
  EXPECT_EQ(rows(),
            (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}, {"2", "before", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, WhatWasSavedFirstCanBeRestored) {
  put_snapshot();
  const Files before = gateway();
  EXPECT_EQ(load(kCarefully), kCareful + kLoadWeekly);
  EXPECT_NE(gateway(), before);
  EXPECT_EQ(load(kRecklessly, "before"), kReckless + "Loading configuration 'before'.\n");
  EXPECT_EQ(gateway(), before);
}

TEST_F(AppLoad, ATakenNameForTheCurrentConfigurationIsOverwrittenOnYes) {
  put_snapshot();
  put({"before", 0, 2, "1000", "2000"});
  const Files before = gateway();
  EXPECT_EQ(load("\nbefore\ny\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "Config 'before' exists. Overwrite? ‹y›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(statements(), (Texts{kInsertBefore, "delete from 'Config' where name='before' and version=0",
                                 kInsertBefore, kSelectWeekly, kStampWeekly}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kCreate, 2, "Try to save configuration 'before' (version 0)", {8})} +
             refused_as_taken("before") +
             LogRecords{says(kDelete, 4, "config name 'before'"),
                        says(kCreate, 2, "Try to save configuration 'before' (version 0)", {8}),
                        says(kCreate, 4, "sqlite3_total_changes: 2", {4}), says(kLoad, 2, "Try to load"),
                        says(kLoad, 2, "sqlite3_column_bytes: " + sizes, {4, 4}),
                        says(kLoad, 4, "sqlite3_total_changes: 3", {4})}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull, kPackEtc, kPackFull} + kUnpack));
  EXPECT_EQ(gateway(), restored(before));
  EXPECT_EQ(rows(),
            (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}, {"3", "before", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, ACapitalYOverwritesToo) {
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

TEST_F(AppLoad, AnyOtherAnswerToTheOverwritingAborts) {
  put_snapshot();
  put({"before", 0, 2, "1000", "2000"});
  const Files before = gateway();
  for (const std::string answer :
       {"yes", "YES", "n", "N", "no", "", " ", "y ", " y", "Y ", " Y", "yy", "y\r"}) {
    EXPECT_EQ(load("\nbefore\n" + answer + "\n"),
              "Save current configuration [Y/n]? ‹›\n"
              "Name for the current configuration: ‹before›\n"
              "Config 'before' exists. Overwrite? ‹" +
                  answer +
                  "›\n"
                  "Aborted.\n");
    EXPECT_EQ(statements(), Texts{kInsertBefore});
  }
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(rows(),
            (Rows{{"1", "weekly", "0", "1", "1000", "NULL"}, {"2", "before", "0", "2", "1000", "2000"}}));
}

TEST_F(AppLoad, OnlyTheLetterNDeclinesToSave) {
  for (const std::string answer : {"n", "N"}) {
    EXPECT_EQ(
        load(answer + "\nYes, do as I say\n", "nobody"),
        kAskToSave + "‹" + answer + "›\n" + kWarning + "‹Yes, do as I say›\n" + kLoadNobody + kNotFound);
  }
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppLoad, EveryOtherAnswerSavesFirst) {
  Rows expected;
  for (const std::string answer :
       {"", "y", "Y", "yes", "YES", "no", "NO", "No", "nn", " n", "n ", "\tn", "n\r", " N", "N ", "q"}) {
    const std::string number = std::to_string(expected.size() + 1);
    EXPECT_EQ(load(answer + "\nbefore" + number + "\n", "nobody"),
              kAskToSave + "‹" + answer + "›\n" + kAskName + "‹before" + number + "›\n" +
                  "Kelmor configuration saved.\n" + kLoadNobody + kNotFound);
    EXPECT_EQ(rows().back(), (Texts{number, "before" + number, "0", "1", "<now>", "NULL"}));
    expected.emplace_back();
  }
}

TEST_F(AppLoad, OnlyThePhraseToTheLetterConfirms) {
  put_snapshot();
  const Files before = gateway();
  for (const std::string phrase :
       {"yes, do as i say", "YES, DO AS I SAY", "yes, do as I say", "Yes, do as i say", "Yes do as I say",
        "Yes,do as I say", "Yes, do  as I say", "Yes, do as I say ", " Yes, do as I say",
        "Yes, do as I say.", "Yes, do as I say\r", "Yes, do as I", ">>> Yes, do as I say", "yes", "y", "Y",
        ""}) {
    EXPECT_EQ(load("n\n" + phrase + "\n"),
              kAskToSave + "‹n›\n" + kWarning + "‹" + phrase + "›\nAborted.\n");
    EXPECT_EQ(statements(), Texts());
    EXPECT_EQ(commands(), Texts());
  }
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppLoad, TheEndOfInputAtTheFirstQuestionSavesUnderAnEmptyNameAndRestores) {
  put_snapshot();
  const Files before = gateway();
  EXPECT_EQ(load(""),
            "Save current configuration [Y/n]? ‹EOF›"
            "Name for the current configuration: "
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(gateway(), restored(before));
  EXPECT_EQ(rows(),
            (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}, {"2", "", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, TheEndOfInputAtTheFirstQuestionAbortsWhenTheEmptyNameIsTaken) {
  put_snapshot();
  put({"", 0});
  const Files before = gateway();
  EXPECT_EQ(load(""),
            "Save current configuration [Y/n]? ‹EOF›"
            "Name for the current configuration: "
            "Config '' exists. Overwrite? "
            "Aborted.\n");
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "NULL"}, {"2", "", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppLoad, TheEndOfInputAtTheNameSavesUnderAnEmptyName) {
  EXPECT_EQ(load("y\n", "nobody"),
            "Save current configuration [Y/n]? ‹y›\n"
            "Name for the current configuration: ‹EOF›"
            "Kelmor configuration saved.\n"
            "Loading configuration 'nobody'.\n"
            "Unknown error: 0.\n");
  EXPECT_EQ(rows(), (Rows{{"1", "", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, TheEndOfInputAtTheOverwritingAborts) {
  put({"before", 0});
  EXPECT_EQ(load("y\nbefore\n", "nobody"),
            "Save current configuration [Y/n]? ‹y›\n"
            "Name for the current configuration: ‹before›\n"
            "Config 'before' exists. Overwrite? ‹EOF›"
            "Aborted.\n");
  EXPECT_EQ(rows(), (Rows{{"1", "before", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppLoad, TheEndOfInputAtThePhraseAborts) {
  put_snapshot();
  const Files before = gateway();
  EXPECT_EQ(load("N\n"), kAskToSave + "‹N›\n" + kWarning + "‹EOF›Aborted.\n");
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade}));
  EXPECT_EQ(gateway(), before);
}

TEST_F(AppLoad, APhraseNeedsNoLineEnd) {
  EXPECT_EQ(load("n\nYes, do as I say", "nobody"),
            kAskToSave + "‹n›\n" + kWarning + "‹Yes, do as I say›\n‹EOF›" + kLoadNobody + kNotFound);
}

TEST_F(AppLoad, EveryQuestionIsSeenInAHostThatUntiedItsStreams) {
  put({"before", 0});
  const Untied untied;
  EXPECT_EQ(load(kOverBefore, "nobody"),
            kOverwriteBefore + "Kelmor configuration saved.\n" + kLoadNobody + kNotFound);
  EXPECT_EQ(load(kRecklessly, "nobody"), kReckless + kLoadNobody + kNotFound);
}

TEST_F(AppLoad, NobodyWaitsWhileAQuestionIsOpen) {
  put_snapshot();
  put({"before", 0});
  std::vector<bool> free;
  {
    test::Console console(kOverBefore);
    const WatchedInput watched([&] { free.push_back(test::lock_is_free(database())); });
    App::load("weekly");
  }
  EXPECT_EQ(free, (std::vector<bool>{true, true, true}));
}

TEST_F(AppLoad, TheNameForTheCurrentConfigurationIsTakenAsTyped) {
  const std::string long_name(100, 'n');
  for (const std::string& name : {std::string(), std::string(" before "), std::string("two words"),
                                  std::string("?"), long_name, std::string("corlu-config")}) {
    EXPECT_EQ(load("\n" + name + "\n", "nobody"), kAskToSave + "‹›\n" + kAskName + "‹" + name + "›\n" +
                                                      "Kelmor configuration saved.\n" + kLoadNobody +
                                                      kNotFound);
  }
  EXPECT_EQ(rows(), (Rows{{"1", "", "0", "1", "<now>", "NULL"},
                          {"2", " before ", "0", "1", "<now>", "NULL"},
                          {"3", "two words", "0", "1", "<now>", "NULL"},
                          {"4", "?", "0", "1", "<now>", "NULL"},
                          {"5", long_name, "0", "1", "<now>", "NULL"},
                          {"6", "corlu-config", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, ARefusedStatementOfTheSavingIsNotTold) {
  EXPECT_EQ(load("\no'hare\n", "nobody"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹o'hare›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'nobody'.\n"
            "Unknown error: 0.\n");
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppLoad, SavingUnderTheNameToRestoreRestoresWhatWasSaved) {
  put_snapshot();
  const Files before = gateway();
  EXPECT_EQ(load("\nweekly\ny\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹weekly›\n"
            "Config 'weekly' exists. Overwrite? ‹y›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n");
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "0", "1", "<now>", "<now>"}}));
}

TEST_F(AppLoad, OtherNamesAndVersionsAreNotTouched) {
  put_snapshot("weekly", kCurrent);
  put_snapshot("weekly", 0);
  put({"before", kCurrent});
  put({"before", 0});
  put({"Before", 0});
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + "Kelmor configuration saved.\n" + kLoadWeekly);
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"},
                          {"2", "weekly", "0", "1", "1000", "<now>"},
                          {"3", "before", "17264017408", "1", "1000", "NULL"},
                          {"5", "Before", "0", "1", "1000", "NULL"},
                          {"6", "before", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, ANameThatIsNotStoredEndsAsAnUnknownError) {
  EXPECT_EQ(load(kRecklessly, "nobody"),
            kReckless + "Loading configuration 'nobody'.\n" + "Unknown error: 0.\n");
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, kSelectNobody}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade, says(kLoad, 2, "Try to load"),
                        says(kLoad, 2, "Configuration is not found: name=nobody, version=0", {8})}));
}

TEST_F(AppLoad, ANameOfAnotherVersionIsNotFound) {
  put_snapshot("weekly", kCurrent);
  const Files before = gateway();
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + kNotFound);
  EXPECT_EQ(gateway(), before);
}

TEST_F(AppLoad, TheNameIsNoPattern) {
  put_snapshot();
  EXPECT_EQ(load(kRecklessly, "week*"), kReckless + "Loading configuration 'week*'.\n" + kNotFound);
}

TEST_F(AppLoad, ThePacketFiltersOwnRecordIsNotFound) {
  put_snapshot("corlu-config");
  EXPECT_EQ(load(kRecklessly, "corlu-config"),
            kReckless + "Loading configuration 'corlu-config'.\n" + kNotFound);
  EXPECT_EQ(rows(), (Rows{{"1", "corlu-config", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppLoad, ABrokenRowEndsAsAnUnknownError) {
  put({"weekly", 0, 1, "1000", "NULL", "NULL"});
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + kNotFound);
}

TEST_F(AppLoad, AnArchiveThatCannotBeUnpackedIsAnExternalFailure) {
  put({"weekly", 0});
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "External command failed\n");
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}}));
}

TEST_F(AppLoad, AConfigurationDatabaseThatCannotBeDeletedIsAnExternalFailure) {
  put_snapshot();
  fs::remove(config_dir() + "user/config.db");
  fs::create_directory(config_dir() + "user/config.db");
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "External command failed\n");
  EXPECT_EQ(commands(), Texts());
}

TEST_F(AppLoad, AMissingDirectoryForTemporaryFilesIsToldByItsStatus) {
  put_snapshot();
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "Unknown error: 17.\n");
  EXPECT_EQ(load(kCarefully),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "Unknown error: 17.\n");
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "<now>"}}));
}

TEST_F(AppLoad, AMissingDestinationIsToldByItsStatus) {
  put_snapshot();
  fs::remove_all(config_dir());
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "Unknown error: 3.\n");
}

TEST_F(AppLoad, StorageThatCannotBeOpenedSaysSavedAndEndsAsAnUnknownError) {
  make_storage_unopenable();
  const Files before = gateway();
  EXPECT_EQ(load("\nbefore\n"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "Kelmor configuration saved.\n"
            "Loading configuration 'weekly'.\n"
            "Unknown error: 0.\n");
  EXPECT_EQ(
      records(),
      (LogRecords{
          kCannotOpen, says(kLoad, 2, "Try to load"),
          says(kLoad, 2, "SQL error: out of memory. Query: " + kSelectWeekly + " (return code: 21)", {4}),
          says(kLoad, 1, "SQL error: out of memory. Query: " + kSelectWeekly)}));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(gateway(), before);
}

TEST_F(AppLoad, StorageThatCannotBeOpenedEndsAsAnUnknownErrorAfterThePhraseToo) {
  make_storage_unopenable();
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + kNotFound);
}

TEST_F(AppLoad, AFileThatIsNoDatabaseSaysSavedAndEndsAsAnUnknownError) {
  damage_database();
  EXPECT_EQ(load(kCarefully), kCareful + kLoadWeekly + kNotFound);
}

// What is thrown, and what is told of it.
using Rungs = std::vector<std::pair<Raise, std::string>>;

/// The ladder of everything that the command does, but for the first try to save.
Rungs ladder() {
  return {
      {throwing(XChdir(0, true, "/srv/gateway")), "Failed to change directory to /srv/gateway\n"},
      {throwing(XChdir(0, "", false, "")), "Failed to change directory to \n"},
      {throwing(XExternalFailure(36, true)), "External command failed\n"},
      {throwing(XCancel(3, true)), "Aborted.\n"},
      {throwing(XNotFound(0, true)), "Unknown error: 0.\n"},
      {throwing(XAmbiguity(1, true)), "Unknown error: 1.\n"},
      {throwing(XConstraint(12, "quota", false)), "Unknown error: 12.\n"},
      {throwing(XTOOStatus(54, "Illegal seek", false)), "Unknown error: 54.\n"},
      {throwing(XTOOStatus(-1, true)), "Unknown error: -1.\n"},
      {throwing(XTOOStatus(INT_MAX, true)), "Unknown error: 2147483647.\n"},
      {throwing(XTOOStatus(INT_MIN, true)), "Unknown error: -2147483648.\n"},
      {throwing(std::runtime_error("no")), "Unknown error while restoring configuration.\n"},
      {throwing(std::bad_alloc()), "Unknown error while restoring configuration.\n"},
      {throwing(7), "Unknown error while restoring configuration.\n"},
  };
}

TEST_F(AppLoad, AnExceptionOfTheUnpackingIsToldByItsKind) {
  put_snapshot();
  for (const auto& [raise, message] : ladder()) {
    fail_at(1, raise);
    EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + message);
  }
  EXPECT_EQ(commands(), Texts{kUnpack[0]});
}

TEST_F(AppLoad, AnExceptionOfTheUnpackingIsToldAfterASavedConfigurationToo) {
  put_snapshot();
  for (const auto& [raise, message] : ladder()) {
    put({"before", 0});
    fail_at(8, raise);  // After four tars of the saving and one archive.
    EXPECT_EQ(load(kOverBefore),
              kOverwriteBefore + "Kelmor configuration saved.\n" + kLoadWeekly + message);
    EXPECT_EQ(rows().back()[4], "<now>");
    EXPECT_EQ(del("before"), "");
  }
}

TEST_F(AppLoad, AnExceptionOfTheSecondTryToSaveIsToldByItsKindAndTheOldRowIsGone) {
  put_snapshot();
  const Files before = gateway();
  for (const auto& [raise, message] : ladder()) {
    put({"before", 0});
    fail_at(3, raise);
    EXPECT_EQ(load(kOverBefore), kOverwriteBefore + message);
    EXPECT_EQ(statements(),
              (Texts{kInsertBefore, "delete from 'Config' where name='before' and version=0"}));
    EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "NULL"}}));
  }
  EXPECT_EQ(gateway(), before);
}

TEST_F(AppLoad, ATarThatFailsAtTheSecondTryToSaveIsAnExternalFailureAndTheOldRowIsGone) {
  put({"before", 0});
  end_with(2, 3);
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + "External command failed\n");
  EXPECT_EQ(rows(), Rows());
}

TEST_F(AppLoad, ANameStillTakenAtTheSecondTryToSaveIsToldByItsStatus) {
  put({"before", 0});
  keep_all_rows();
  EXPECT_EQ(load(kOverBefore), kOverwriteBefore + "Unknown error: 0.\n");
  EXPECT_EQ(rows(), (Rows{{"1", "before", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppLoad, AnExceptionOfTheFirstTryToSaveIsToldByItsKind) {
  put_snapshot();
  const Files before = gateway();
  const Rungs rungs{
      {throwing(XNotFound(0, true)), "Failed to execute external command.\nAborted.\n"},
      {throwing(XExternalFailure(36, true)), "'tar' returned non-zero exit status.\nAborted.\n"},
      {throwing(XChdir(0, true, "/srv")), "'tar' returned non-zero exit status.\nAborted.\n"},
      {throwing(XCancel(0, true)), "Aborted.\n"},
      {throwing(XAmbiguity(9, true)), "Unknown error: 9.\n"},
      {throwing(XTOOStatus(17, "No space left on device", false)), "Unknown error: 17.\n"},
      {throwing(std::runtime_error("no")), "Unknown error while restoring configuration.\n"},
      {throwing(7), "Unknown error while restoring configuration.\n"},
  };
  for (const auto& [raise, message] : rungs) {
    fail_at(1, raise);
    EXPECT_EQ(load(kCarefully),
              "Save current configuration [Y/n]? ‹›\n"
              "Name for the current configuration: ‹before›\n" +
                  message);
    EXPECT_EQ(statements(), Texts());
  }
  EXPECT_EQ(gateway(), before);
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "0", "1", "1000", "NULL"}}));
}

TEST_F(AppLoad, AConstraintOfTheHostAsksAsATakenNameDoes) {
  fail_at(1, throwing(XConstraint(0, "quota", false)));
  EXPECT_EQ(load(kOverBefore, "nobody"),
            kOverwriteBefore + "Kelmor configuration saved.\n" + kLoadNobody + kNotFound);
  EXPECT_EQ(rows(), (Rows{{"1", "before", "0", "1", "<now>", "NULL"}}));
}

TEST_F(AppLoad, AFailedTarOfTheSavingIsToldAndAborts) {
  host.on_command = test::fail_commands("cd " + config_dir(), 2);
  EXPECT_EQ(load(kCarefully, "nobody"),
            "Save current configuration [Y/n]? ‹›\n"
            "Name for the current configuration: ‹before›\n"
            "'tar' returned non-zero exit status.\n"
            "Aborted.\n");
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kPack, 1, "failed to create tar archive with error code: 2", {4})}));
}

TEST_F(AppLoad, AStatusIsWrittenWithoutDigitGroups) {
  put_snapshot();
  fail_at(1, throwing(XTOOStatus(1234567, true)));
  const GroupedDigits grouped(std::cout);
  EXPECT_EQ(load(kRecklessly), kReckless + kLoadWeekly + "Unknown error: 1234567.\n");
}

TEST_F(AppLoad, AnExceptionOfTheInputIsUnknown) {
  const auto throwing_load = [] {
    const ThrowingAtEndOfInput end;
    App::load("weekly");
  };
  const std::string unknown = "‹EOF›Unknown error while restoring configuration.\n";
  put({"before", 0});
  EXPECT_EQ(dialogue("", throwing_load), kAskToSave + unknown);
  EXPECT_EQ(dialogue("n\n", throwing_load), kAskToSave + "‹n›\n" + kWarning + unknown);
  EXPECT_EQ(dialogue("\n", throwing_load), kAskToSave + "‹›\n" + kAskName + unknown);
  EXPECT_EQ(dialogue("\nbefore\n", throwing_load), kAskToSave + "‹›\n" + kAskName + "‹before›\n" +
                                                       "Config 'before' exists. Overwrite? " + unknown);
}

TEST_F(AppLoad, EveryExceptionOfTheOpeningLeaves) {
  const auto leaves = [this](auto exception) {
    using Exception = decltype(exception);
    fail_in_log("Storage", throwing(exception));
    std::optional<Exception> left;
    EXPECT_EQ(dialogue("", [&] { left = test::thrown_by<Exception>([] { App::load("weekly"); }); }), "");
    host.reset();
    return *left;
  };
  EXPECT_EQ(leaves(XCancel(3, true)).Status(), 3);
  EXPECT_EQ(leaves(XExternalFailure(36, true)).Status(), 36);
  EXPECT_EQ(leaves(XTOOStatus(5, true)).Status(), 5);
  EXPECT_STREQ(leaves(std::runtime_error("no")).what(), "no");
  EXPECT_EQ(leaves(7), 7);
}

}  // namespace
