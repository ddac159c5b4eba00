#include "confsave.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <limits>
#include <locale>
#include <map>
#include <new>
#include <optional>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/grouped_digits.h"
#include "support/opened_storage.h"

namespace {

namespace fs = std::filesystem;

using ConfSave::checkColumnType;
using ConfSave::conf_full;
using ConfSave::int64;
using ConfSave::XConstraint;
using ConfSave::XExternalFailure;
using ConfSave::XNotFound;
using test::GroupedDigits;
using test::kCurrent;
using test::kLoad;
using test::LogRecord;
using test::LogRecords;
using test::refusal;
using test::Rows;
using test::says;
using test::Texts;
using test::Widths;

using Bytes = std::vector<char>;
constexpr const char* kSource = "source/storage";

LogRecord check_says(const std::string& text) {
  return {
      4,
      "void ConfSave::checkColumnType(const string&, int64, sqlite3_stmt*, const char*, int, int, bool)",
      "checkColumnType",
      kSource,
      text,
      {8, 4, 4}};
}

LogRecord unpack_says(const std::string& text, const Widths& widths = {}) {
  return {1,     "void ConfSave::unpack(const string&, const string&)", "unpack", "source/archive", text,
          widths};
}

/// The bytes as a literal of SQL.
std::string literal(const Bytes& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text = "x'";
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += {kDigits[value / 16], kDigits[value % 16]};
  }
  return text + "'";
}

// ---------------------------------------------------------------------------------------------------
// checkColumnType

/// A statement that stands on a row of a table, with one column of each type.
class ColumnCheck : public test::Gateway {
 protected:
  ColumnCheck() : db(database()) {
    db.run("create table Config (i, f, t, b, n)");
    db.run("insert into Config values (1, 2.5, 'text', x'00', null)");
    sqlite3_prepare_v2(db.get(), "select * from Config", -1, &statement, nullptr);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
  }

  ~ColumnCheck() override {
    while (sqlite3_stmt* left = sqlite3_next_stmt(db.get(), nullptr)) sqlite3_finalize(left);
  }

  void check(int index, int expected, bool strict) {
    checkColumnType("weekly", kCurrent, statement, "keybase", index, expected, strict);
  }

  /// The statement stands on its row as before, which keeps others from writing.
  void expect_untouched() {
    EXPECT_EQ(sqlite3_next_stmt(db.get(), nullptr), statement);
    EXPECT_EQ(sqlite3_column_int(statement, 0), 1);
    EXPECT_FALSE(test::lock_is_free(database()));
  }

  void expect_finalized() {
    EXPECT_EQ(sqlite3_next_stmt(db.get(), nullptr), nullptr);
    EXPECT_TRUE(test::lock_is_free(database()));
  }

  test::Database db;
  sqlite3_stmt* statement = nullptr;
};

TEST_F(ColumnCheck, TheExpectedTypeIsFineInBothModes) {
  for (int index = 0; index < 5; ++index) {
    check(index, index + 1, true);
    check(index, index + 1, false);
  }
  EXPECT_EQ(host.records, LogRecords());
  expect_untouched();
}

TEST_F(ColumnCheck, ANullThatShouldBeABlobIsRejected) {
  const auto error = test::thrown_by<XConstraint>([this] { check(4, 4, true); });
  EXPECT_EQ(error.Status(), 0);
  EXPECT_TRUE(error.IsError());
  EXPECT_EQ(error.ErrorMessage(),
            std::string("Stored configuration ``weekly'' (version 17264017408) is broken or invalid. "
                        "column ``keybase'' type is 5 (expected 4)"));
  EXPECT_EQ(host.records, LogRecords());
  expect_finalized();
}

TEST_F(ColumnCheck, ANullThatShouldBeABlobIsTolerated) {
  check(4, 4, false);
  EXPECT_EQ(host.records,
            LogRecords{check_says("Configuration ``weekly'' (version 17264017408) contains column "
                                  "``keybase'' with type 5 (expected 4). ignoring difference")});
  expect_untouched();
}

TEST_F(ColumnCheck, EveryTypeHasItsCode) {
  for (int index = 0; index < 5; ++index) {
    for (int expected = 1; expected <= 5; ++expected) check(index, expected, false);
  }
  const Texts codes{"1 (expected 2)", "1 (expected 3)", "1 (expected 4)", "1 (expected 5)",
                    "2 (expected 1)", "2 (expected 3)", "2 (expected 4)", "2 (expected 5)",
                    "3 (expected 1)", "3 (expected 2)", "3 (expected 4)", "3 (expected 5)",
                    "4 (expected 1)", "4 (expected 2)", "4 (expected 3)", "4 (expected 5)",
                    "5 (expected 1)", "5 (expected 2)", "5 (expected 3)", "5 (expected 4)"};
  LogRecords expected;
  for (const std::string& code : codes) {
    expected.push_back(
        check_says("Configuration ``weekly'' (version 17264017408) contains column "
                   "``keybase'' with type " +
                   code + ". ignoring difference"));
  }
  EXPECT_EQ(host.records, expected);
  expect_untouched();
}

TEST_F(ColumnCheck, TheArgumentsAreForTheMessageOnly) {
  const auto error = test::thrown_by<XConstraint>(
      [this] { checkColumnType("o'hare %s", -1, statement, "no such", 2, 1, true); });
  EXPECT_EQ(error.ErrorMessage(),
            std::string("Stored configuration ``o'hare %s'' (version -1) is broken or invalid. "
                        "column ``no such'' type is 3 (expected 1)"));
  expect_finalized();
}

TEST_F(ColumnCheck, AnEmptyNameAndNoVersionAreShownAsTheyAre) {
  checkColumnType("", 0, statement, "", 1, 4, false);
  EXPECT_EQ(host.records, LogRecords{check_says("Configuration ``'' (version 0) contains column ``'' with "
                                                "type 2 (expected 4). ignoring difference")});
  expect_untouched();
}

TEST_F(ColumnCheck, DigitGroupsOfTheLocaleStayOutOfTheMessage) {
  const GroupedDigits grouped;
  EXPECT_EQ(test::thrown_by<XConstraint>([this] { check(0, 4, true); }).ErrorMessage(),
            std::string("Stored configuration ``weekly'' (version 17264017408) is broken or invalid. "
                        "column ``keybase'' type is 1 (expected 4)"));
}

TEST_F(ColumnCheck, ADifferenceIsLoggedAtLevel4Only) {
  host.log_level = 3;
  check(4, 4, false);
  EXPECT_EQ(host.records, LogRecords());
  expect_untouched();
}

// ---------------------------------------------------------------------------------------------------
// Load

/// Content, permissions and time of a file.
using File = std::tuple<std::string, unsigned, std::time_t>;
using Files = std::map<std::string, File>;

Files files_below(const std::string& dir) {
  Files files;
  for (const auto& [name, content] : test::tree(dir)) {
    struct stat status = {};
    EXPECT_EQ(stat((dir + name).c_str(), &status), 0) << name;
    files[name] = {content, status.st_mode & 07777U, status.st_mtime};
  }
  return files;
}

/// A storage, two archives that the real tar made, and directories that have lost what is in them.
class StorageLoad : public test::OpenedStorage {
 protected:
  StorageLoad() {
    make_configuration();
    config_files = files_below(config_dir());
    etc_files = files_below(etc_dir());
    keybase = test::make_archive(config_dir(), "user gw1.conf gw2.conf hub");
    etc = test::make_archive(etc_dir(), "failover.ini failover.ini.crg failoverd-config.crg");
    test::shell("rm -rf " + config_dir() + "* " + etc_dir() + "*");
    fs::create_directory(config_dir() + "user");
  }

  /// A table that somebody else made: as ours, but a name and version may be there many times.
  void use_foreign_table() {
    rearrange(
        "drop table Config; create table Config (id, name, version, keybase, etc, type, save_time, "
        "load_time)");
  }

  test::RowSpec row(int type) const {
    return {"weekly", kCurrent, type, "1000", "NULL", literal(keybase), literal(etc)};
  }

  test::RowSpec row(int type, const std::string& keybase_value, const std::string& etc_value) const {
    return {"weekly", kCurrent, type, "1000", "NULL", keybase_value, etc_value};
  }

  void load() { storage->Load("weekly", nullptr, kCurrent, true); }

  /// All rows: id, load_time.
  Rows stamps() const { return query("select id, load_time from Config order by rowid"); }

  /// Runs no command, and keeps the contents of the temporary files that the first finds, sorted.
  void keep_archives() {
    host.on_command = [this](const std::string&) -> std::optional<int> {
      if (host.commands.size() == 1) {
        for (const auto& file : test::tree(temp_dir())) unpacked.insert(file.second);
      }
      return 0;
    };
  }

  static std::multiset<std::string> contents(const Bytes& one, const Bytes& other) {
    return {std::string(one.begin(), one.end()), std::string(other.begin(), other.end())};
  }

  /// The record of the two sizes.
  static LogRecord sizes(std::size_t keybase_size, std::size_t etc_size) {
    return says(
        kLoad, 2,
        "sqlite3_column_bytes: sz0=" + std::to_string(keybase_size) + ", sz1=" + std::to_string(etc_size),
        {4, 4});
  }

  void expect_rejected(const std::string& message) {
    const auto error = test::thrown_by<XConstraint>([this] { load(); });
    EXPECT_EQ(error.Status(), 0);
    EXPECT_EQ(error.ErrorMessage(), message);
    EXPECT_EQ(sqlite3_next_stmt(connection, nullptr), nullptr);
    EXPECT_TRUE(test::lock_is_free(database()));
    EXPECT_EQ(commands(), Texts());
    EXPECT_EQ(query("select * from Config where load_time is not null"), Rows());
  }

  void expect_not_found(const std::function<void()>& call) {
    const auto error = test::thrown_by<XNotFound>(call);
    EXPECT_EQ(error.Status(), 0);
    EXPECT_TRUE(error.IsError());
    EXPECT_EQ(error.ErrorMessage(), std::string());
    EXPECT_EQ(commands(), Texts());
  }

  Files config_files;
  Files etc_files;
  Bytes keybase;
  Bytes etc;
  std::multiset<std::string> unpacked;
};

const std::string kSelectWeekly =
    "select keybase, etc, type, id from 'Config' where name!='corlu-config' and name='weekly' and "
    "version=17264017408";
const std::string kStampFirst = "update 'Config' set load_time=<now> where id=1";

const LogRecord kTryToLoad = says(kLoad, 2, "Try to load");
const LogRecord kOneChange = says(kLoad, 4, "sqlite3_total_changes: 1", {4});
const LogRecord kNoChange = says(kLoad, 4, "sqlite3_total_changes: 0", {4});
const LogRecord kNotFound =
    says(kLoad, 2, "Configuration is not found: name=weekly, version=17264017408", {8});

const Texts kUnpackEtc{"tar xzf <archive> --exclude corlu.serv -C /mnt/main/etc//<scratch> 2>/dev/null",
                       "cp -alf /mnt/main/etc//<scratch>/* /mnt/main/etc//. 2>/dev/null",
                       "rm -rf /mnt/main/etc//<scratch> 2>/dev/null"};
const Texts kUnpackKeybase{"tar xzf <archive> --exclude corlu.serv -C <root>/config//<scratch> 2>/dev/null",
                           "cp -alf <root>/config//<scratch>/* <root>/config//. 2>/dev/null",
                           "rm -rf <root>/config//<scratch> 2>/dev/null"};
const Texts kUnpackToTarget{
    "tar xzf <archive> --exclude corlu.serv -C <root>/target//<scratch> 2>/dev/null",
    "cp -alf <root>/target//<scratch>/* <root>/target//. 2>/dev/null",
    "rm -rf <root>/target//<scratch> 2>/dev/null"};

Texts operator+(Texts first, const Texts& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST_F(StorageLoad, TheConfigurationIsFoundStampedAndUnpacked) {
  put(row(1));
  load();
  EXPECT_EQ(statements(), (Texts{kSelectWeekly, kStampFirst}));
  EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase);
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size()), kOneChange}));
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, EveryFileComesBackAsItWas) {
  // What a full snapshot holds, from the library itself; the journal of the database is never in it.
  test::shell("rm -rf " + config_dir() + "*");
  make_configuration();
  storage->Create("weekly", conf_full, kCurrent);
  test::shell("rm -rf " + config_dir() + "* " + etc_dir() + "*");
  load();
  EXPECT_EQ(config_files.size(), 30U);
  EXPECT_EQ(files_below(config_dir()), config_files);
  EXPECT_EQ(files_below(etc_dir()), etc_files);
}

TEST_F(StorageLoad, WhatIsThereIsReplacedAndOtherFilesStay) {
  put(row(1));
  test::write_file(config_dir() + "user/gateway.conf", "changed");
  test::write_file(config_dir() + "user/config.db-journal", "stale");
  test::write_file(config_dir() + "own.txt", "not in the archive");
  test::write_file(etc_dir() + "failover.ini", "changed");
  load();
  const Files restored = files_below(config_dir());
  EXPECT_EQ(restored.at("user/gateway.conf"), config_files.at("user/gateway.conf"));
  EXPECT_EQ(restored.count("user/config.db-journal"), 0U);
  EXPECT_EQ(std::get<0>(restored.at("own.txt")), "not in the archive");
  EXPECT_EQ(files_below(etc_dir()), etc_files);
}

TEST_F(StorageLoad, ATargetTakesBothArchives) {
  put(row(1));
  fs::create_directory(root() + "/target");
  const std::string target = root() + "/target/";
  storage->Load("weekly", target.c_str(), kCurrent, true);
  EXPECT_EQ(commands(), kUnpackToTarget + kUnpackToTarget);
  const Files restored = files_below(target);
  EXPECT_EQ(restored.at("user/gateway.conf"), config_files.at("user/gateway.conf"));
  EXPECT_EQ(restored.at("failover.ini"), etc_files.at("failover.ini"));
  EXPECT_EQ(files_below(config_dir()), Files());
  EXPECT_EQ(files_below(etc_dir()), Files());
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, EachLevelLogsItsShare) {
  put(row(1));
  const auto call = [this] { load(); };
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(logged_at(1, call), LogRecords());
  EXPECT_EQ(logged_at(2, call), (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size())}));
  EXPECT_EQ(logged_at(3, call), (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size())}));
  EXPECT_EQ(logged_at(4, call), (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size()),
                                            says(kLoad, 4, "sqlite3_total_changes: 5", {4})}));
}

TEST_F(StorageLoad, OnlyTheLoadedRowIsStamped) {
  put({"daily", kCurrent});
  put(row(1));
  put({"weekly", 0});
  load();
  EXPECT_EQ(statements(), (Texts{kSelectWeekly, "update 'Config' set load_time=<now> where id=2"}));
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}, {"2", "<now>"}, {"3", "NULL"}}));
}

TEST_F(StorageLoad, AnEarlierStampIsReplaced) {
  test::RowSpec spec = row(1);
  spec.load_time = "2000";
  put(spec);
  load();
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, TheListingShowsTheStamp) {
  put(row(1));
  load();
  const ConfSave::Configs configs = storage->List(0, "", true);
  ASSERT_EQ(configs.size(), 1U);
  EXPECT_GE(configs[0].load_time, started);
  EXPECT_LE(configs[0].load_time, std::time(nullptr));
}

TEST_F(StorageLoad, AnIdMayBeLargerThan32Bits) {
  put(row(1));
  put({"daily", kCurrent});
  rearrange(
      "update Config set id = id + 4294967296 where name = 'weekly'; "
      "update Config set id = 1 where name = 'daily'");
  load();
  EXPECT_EQ(statements(),
            (Texts{kSelectWeekly, "update 'Config' set load_time=<now> where id=4294967297"}));
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}, {"4294967297", "<now>"}}));
}

TEST_F(StorageLoad, ATypeIsReadAs32Bits) {
  put(row(1, literal(keybase), "NULL"));
  rearrange("update Config set type = 4294967299");  // 3, and a bit above.
  load();
  EXPECT_EQ(commands(), kUnpackKeybase);
}

TEST_F(StorageLoad, AnUnknownTypeIsUnpackedWhole) {
  for (const int type : {-1, 0, 2, 7}) {
    rearrange("delete from Config");
    put(row(type));
    load();
    EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase) << type;
  }
}

TEST_F(StorageLoad, DigitGroupsOfTheLocaleStayOutOfTheStatements) {
  put(row(1));
  const GroupedDigits grouped;
  load();
  EXPECT_EQ(statements(), (Texts{kSelectWeekly, kStampFirst}));
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, VersionsReachFromEndToEnd) {
  test::RowSpec spec = row(3);
  for (const int64 version :
       {int64{0}, std::numeric_limits<int64>::max(), std::numeric_limits<int64>::min()}) {
    spec.version = version;
    put(spec);
    storage->Load("weekly", nullptr, version, true);
  }
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}, {"2", "<now>"}, {"3", "<now>"}}));
}

TEST_F(StorageLoad, InATransactionTheStampTakesEffectAtTheCommit) {
  put(row(1));
  storage->Begin();
  load();
  EXPECT_FALSE(test::lock_is_free(database()));
  storage->Commit();
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, WithoutACommitTheStampIsUndone) {
  put(row(1));
  storage->Begin();
  load();
  storage.reset();
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}}));
  EXPECT_EQ(files_below(etc_dir()), etc_files);
}

// What is not found

TEST_F(StorageLoad, AnEmptyTableHoldsNothing) {
  expect_not_found([this] { load(); });
  EXPECT_EQ(statements(), Texts{kSelectWeekly});
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, kNotFound}));
}

TEST_F(StorageLoad, WhatIsNotFoundIsLoggedFromLevel2) {
  const auto call = [this] { expect_not_found([this] { load(); }); };
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(logged_at(1, call), LogRecords());
  EXPECT_EQ(logged_at(2, call), (LogRecords{kTryToLoad, kNotFound}));
}

TEST_F(StorageLoad, AnotherVersionIsNotFoundEvenIfItPrintsAlike) {
  put(row(1));
  expect_not_found([this] { storage->Load("weekly", nullptr, kCurrent + 1, true); });
  expect_not_found([this] { storage->Load("weekly", nullptr, 0, true); });
  EXPECT_EQ(
      records(),
      (LogRecords{kTryToLoad,
                  says(kLoad, 2, "Configuration is not found: name=weekly, version=17264017409", {8}),
                  kTryToLoad, says(kLoad, 2, "Configuration is not found: name=weekly, version=0", {8})}));
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}}));
}

TEST_F(StorageLoad, AnotherNameIsNotFound) {
  put(row(1));
  for (const char* name : {"Weekly", "weekl", "week*", ""}) {
    expect_not_found([&] { storage->Load(name, nullptr, kCurrent, true); });
  }
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}}));
}

TEST_F(StorageLoad, TheCorluConfigurationIsSkippedOnRequest) {
  test::RowSpec spec = row(3);
  spec.name = "corlu-config";
  put(spec);
  expect_not_found([this] { storage->Load("corlu-config", nullptr, kCurrent, true); });
  EXPECT_EQ(statements(),
            (Texts{"select keybase, etc, type, id from 'Config' where name!='corlu-config' and "
                   "name='corlu-config' and version=17264017408"}));
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, says(kLoad, 2,
                                                    "Configuration is not found: name=corlu-config, "
                                                    "version=17264017408",
                                                    {8})}));
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}}));
}

TEST_F(StorageLoad, TheCorluConfigurationIsFoundUnlessSkipped) {
  test::RowSpec spec = row(3);
  spec.name = "corlu-config";
  put(spec);
  storage->Load("corlu-config", nullptr, kCurrent, false);
  EXPECT_EQ(statements(),
            (Texts{"select keybase, etc, type, id from 'Config' where name='corlu-config' and "
                   "version=17264017408",
                   kStampFirst}));
  EXPECT_EQ(commands(), kUnpackKeybase);
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, TheStatementIsGoneBeforeItIsToldThatNothingWasFound) {
  bool open = true;
  host.on_recorded = [&] { open = sqlite3_next_stmt(connection, nullptr) != nullptr; };
  expect_not_found([this] { load(); });
  EXPECT_FALSE(open);
}

TEST_F(StorageLoad, AMissingTableCountsAsNotFound) {
  test::Database(database()).run("drop table Config");
  sqlite3_exec(connection, "select * from sqlite_schema", nullptr, nullptr, nullptr);  // It takes note.
  forget();
  const std::string text = "SQL error: no such table: Config. Query: " + kSelectWeekly;
  const LogRecord report = says(kLoad, 2, text + " (return code: 1)", {4});
  const LogRecord failure = says(kLoad, 1, text);
  const auto call = [this] { expect_not_found([this] { load(); }); };
  EXPECT_EQ(logged_at(4, call), (LogRecords{kTryToLoad, report, failure}));
  EXPECT_EQ(logged_at(2, call), (LogRecords{kTryToLoad, report, failure}));
  EXPECT_EQ(logged_at(1, call), LogRecords{failure});
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(statements(), Texts());
}

TEST_F(StorageLoad, ATableOfAnotherShapeCountsAsNotFound) {
  rearrange("drop table Config; create table Config (name text, version integer)");
  expect_not_found([this] { load(); });
  const std::string text = "SQL error: no such column: keybase. Query: " + kSelectWeekly;
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, says(kLoad, 2, text + " (return code: 1)", {4}),
                                   says(kLoad, 1, text)}));
}

TEST_F(StorageLoad, ANameWithAQuoteCountsAsNotFound) {
  test::RowSpec spec = row(1);
  spec.name = "o''hare";
  put(spec);
  expect_not_found([this] { storage->Load("o'hare", nullptr, kCurrent, false); });
  const std::string text =
      "SQL error: near \"hare\": syntax error. Query: select keybase, etc, type, id from 'Config' where "
      "name='o'hare' and version=17264017408";
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, says(kLoad, 2, text + " (return code: 1)", {4}),
                                   says(kLoad, 1, text)}));
}

TEST_F(StorageLoad, TheNameIsPastedAsItIs) {
  test::RowSpec spec = row(1);
  spec.name = "o''hare";
  put(spec);
  storage->Load("o''hare", nullptr, kCurrent, true);
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, AStepThatFailsAtOnceCountsAsNotFound) {
  put(row(1));
  sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, 200);  // Smaller than what the row holds.
  expect_not_found([this] { load(); });
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, kNotFound}));
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}}));
}

// What is broken

TEST_F(StorageLoad, AKeybaseThatIsNoBlobIsRejected) {
  const std::map<std::string, std::string> values{{"NULL", "5"}, {"'text'", "3"}, {"2.5", "2"}, {"1", "1"}};
  for (const auto& [value, code] : values) {
    rearrange("delete from Config");
    put(row(1, value, literal(etc)));
    expect_rejected(
        "Stored configuration ``weekly'' (version 17264017408) is broken or invalid. column "
        "``keybase'' type is " +
        code + " (expected 4)");
    EXPECT_EQ(statements(), Texts{kSelectWeekly});
    EXPECT_EQ(records(), LogRecords{kTryToLoad});
  }
}

TEST_F(StorageLoad, AKeybaseThatIsNoBlobIsRejectedForTheCorluTypeToo) {
  put(row(3, "NULL", "NULL"));
  expect_rejected(
      "Stored configuration ``weekly'' (version 17264017408) is broken or invalid. column ``keybase'' type "
      "is 5 (expected 4)");
}

TEST_F(StorageLoad, ATypeThatIsNoIntegerIsRejected) {
  const std::map<std::string, std::string> values{
      {"NULL", "5"}, {"'full'", "3"}, {"2.5", "2"}, {"x'01'", "4"}};
  for (const auto& [value, code] : values) {
    rearrange("delete from Config");
    put(row(1));
    rearrange("update Config set type = " + value);
    expect_rejected(
        "Stored configuration ``weekly'' (version 17264017408) is broken or invalid. column "
        "``type'' type is " +
        code + " (expected 1)");
    EXPECT_EQ(records(), LogRecords{kTryToLoad});
  }
}

TEST_F(StorageLoad, AnIdThatIsNoIntegerIsRejected) {
  use_foreign_table();
  put(row(1));
  const std::map<std::string, std::string> values{
      {"NULL", "5"}, {"'one'", "3"}, {"2.5", "2"}, {"x'01'", "4"}};
  for (const auto& [value, code] : values) {
    rearrange("update Config set id = " + value);
    expect_rejected(
        "Stored configuration ``weekly'' (version 17264017408) is broken or invalid. column "
        "``id'' type is " +
        code + " (expected 1)");
    EXPECT_EQ(records(), LogRecords{kTryToLoad});
  }
}

TEST_F(StorageLoad, AnEtcThatIsNoBlobIsRejected) {
  const std::map<std::string, std::string> values{{"NULL", "5"}, {"'text'", "3"}, {"2.5", "2"}, {"1", "1"}};
  for (const int type : {-1, 0, 1, 2, 4}) {
    for (const auto& [value, code] : values) {
      rearrange("delete from Config");
      put(row(type, literal(keybase), value));
      expect_rejected(
          "Stored configuration ``weekly'' (version 17264017408) is broken or invalid. column "
          "``etc'' type is " +
          code + " (expected 4)");
      EXPECT_EQ(records(), LogRecords{kTryToLoad});
    }
  }
}

TEST_F(StorageLoad, TheFirstOfSeveralBrokenColumnsIsNamed) {
  use_foreign_table();
  const std::string opening =
      "Stored configuration ``weekly'' (version 17264017408) is broken or invalid. column ";
  put(row(1, "NULL", "NULL"));
  rearrange("update Config set type = NULL, id = NULL");
  expect_rejected(opening + "``keybase'' type is 5 (expected 4)");
  rearrange("update Config set keybase = x'00'");
  expect_rejected(opening + "``type'' type is 5 (expected 1)");
  rearrange("update Config set type = 1");
  expect_rejected(opening + "``id'' type is 5 (expected 1)");
  rearrange("update Config set id = 1");
  expect_rejected(opening + "``etc'' type is 5 (expected 4)");
}

TEST_F(StorageLoad, ABrokenRowIsRejectedWithoutALog) {
  put(row(1, "NULL", "NULL"));
  host.log_level = 0;
  expect_rejected(
      "Stored configuration ``weekly'' (version 17264017408) is broken or invalid. column ``keybase'' type "
      "is 5 (expected 4)");
  EXPECT_EQ(records(), LogRecords());
}

TEST_F(StorageLoad, ABrokenSecondRowIsRejectedAndNothingStamped) {
  use_foreign_table();
  put(row(1));
  put(row(1, "NULL", "NULL"));
  rearrange("update Config set id = rowid");
  expect_rejected(
      "Stored configuration ``weekly'' (version 17264017408) is broken or invalid. column ``keybase'' type "
      "is 5 (expected 4)");
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size())}));
}

// The corlu type

TEST_F(StorageLoad, OfTheCorluTypeOnlyKeybaseIsUnpacked) {
  put(row(3));
  load();
  EXPECT_EQ(commands(), kUnpackKeybase);
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size()), kOneChange}));
  EXPECT_EQ(files_below(config_dir()).at("user/gateway.conf"), config_files.at("user/gateway.conf"));
  EXPECT_EQ(files_below(etc_dir()), Files());
}

TEST_F(StorageLoad, OfTheCorluTypeAnyEtcIsToleratedAndNotUsed) {
  struct Case {
    std::string value;
    std::string code;
    std::size_t size;
  };
  for (const Case& etc_value : {Case{"NULL", "5", 0}, Case{"42", "1", 2}, Case{"2.5", "2", 3},
                                Case{"'text'", "3", 4}, Case{"''", "3", 0}}) {
    unpacked.clear();
    rearrange("delete from Config");
    put(row(3, literal(keybase), etc_value.value));
    keep_archives();
    load();
    EXPECT_EQ(unpacked, contents(keybase, {})) << etc_value.value;
    EXPECT_EQ(records(), (LogRecords{kTryToLoad,
                                     check_says("Configuration ``weekly'' (version 17264017408) contains "
                                                "column ``etc'' with type " +
                                                etc_value.code + " (expected 4). ignoring difference"),
                                     sizes(keybase.size(), etc_value.size), kOneChange}));
  }
}

TEST_F(StorageLoad, OfTheCorluTypeAnEtcBlobIsNotUsed) {
  put(row(3));
  keep_archives();
  load();
  EXPECT_EQ(unpacked, contents(keybase, {}));
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size()), kOneChange}));
}

TEST_F(StorageLoad, OfOtherTypesBothBlobsReachTheArchive) {
  put(row(1));
  keep_archives();
  load();
  EXPECT_EQ(unpacked, contents(keybase, etc));
}

// Empty blobs

TEST_F(StorageLoad, EmptyBlobsAreEmptyArchives) {
  put(row(1, "x''", "x''"));
  keep_archives();
  load();
  EXPECT_EQ(unpacked, contents({}, {}));
  EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase);
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, sizes(0, 0), kOneChange}));
}

TEST_F(StorageLoad, AnEmptyKeybaseIsNoArchiveForTar) {
  put(row(3, "x''", "NULL"));
  EXPECT_EQ(test::thrown_by<XExternalFailure>([this] { load(); }).Status(), 36);
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

// Several rows

TEST_F(StorageLoad, OfSeveralRowsTheLastIsUsed) {
  use_foreign_table();
  const Bytes other = test::make_archive(root(), "state");
  put(row(1));
  put(row(1, literal(other), "x'01'"));
  rearrange("update Config set id = rowid + 10");
  keep_archives();
  load();
  EXPECT_EQ(statements(), (Texts{kSelectWeekly, "update 'Config' set load_time=<now> where id=12"}));
  EXPECT_EQ(unpacked, contents(other, {'\1'}));
  EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase);
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size()), sizes(other.size(), 1),
                                   kOneChange}));
  EXPECT_EQ(stamps(), (Rows{{"11", "NULL"}, {"12", "<now>"}}));
}

TEST_F(StorageLoad, EmptyBlobsOfTheLastRowReplaceThoseBefore) {
  use_foreign_table();
  put(row(1));
  put(row(1, "x''", "x''"));
  rearrange("update Config set id = rowid");
  keep_archives();
  load();
  EXPECT_EQ(unpacked, contents({}, {}));
}

TEST_F(StorageLoad, ALastRowOfTheCorluTypeLeavesTheEtcOfTheRowBefore) {
  use_foreign_table();
  put(row(1));
  put(row(3, "x'02'", "x'03'"));
  rearrange("update Config set id = rowid");
  keep_archives();
  load();
  EXPECT_EQ(unpacked, contents({'\2'}, etc));
  EXPECT_EQ(commands(), kUnpackKeybase);
  EXPECT_EQ(records(),
            (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size()), sizes(1, 1), kOneChange}));
}

TEST_F(StorageLoad, ALastRowOfAnotherTypeIsCheckedByItsOwnType) {
  use_foreign_table();
  put(row(3, literal(keybase), "NULL"));
  put(row(1, literal(keybase), "NULL"));
  rearrange("update Config set id = rowid");
  expect_rejected(
      "Stored configuration ``weekly'' (version 17264017408) is broken or invalid. column ``etc'' type is "
      "5 "
      "(expected 4)");
}

TEST_F(StorageLoad, AStepThatFailsAfterARowLeavesThatRow) {
  use_foreign_table();
  put(row(1));
  put(row(3, "x'02'", "x'03'"));
  rearrange("update Config set id = rowid");
  sqlite3_trace_v2(
      connection, SQLITE_TRACE_ROW,
      [](unsigned, void* db, void*, void*) {
        sqlite3_interrupt(static_cast<sqlite3*>(db));
        return 0;
      },
      connection);
  keep_archives();
  load();
  EXPECT_EQ(unpacked, contents(keybase, etc));
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size()), kOneChange}));
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}, {"2", "NULL"}}));
}

// A stamp that fails

TEST_F(StorageLoad, AStampThatIsRefusedIsOnlyLogged) {
  put(row(1));
  rearrange("create trigger frozen before update on Config begin select raise(fail, 'frozen'); end");
  const LogRecord report = says(kLoad, 2, refusal("frozen", kStampFirst, 19), {4});
  const LogRecord found = sizes(keybase.size(), etc.size());
  const auto call = [this] { load(); };
  EXPECT_EQ(logged_at(4, call), (LogRecords{kTryToLoad, found, report, kNoChange}));
  EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase);
  EXPECT_EQ(logged_at(2, call), (LogRecords{kTryToLoad, found, report}));
  EXPECT_EQ(logged_at(1, call), LogRecords());
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(files_below(etc_dir()), etc_files);
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}}));
}

TEST_F(StorageLoad, AViewIsLoadedThoughItCannotBeStamped) {
  rearrange("alter table Config rename to Kept; create view Config as select * from Kept");
  test::Database(database())
      .run(
          "insert into Kept (name, version, keybase, etc, type) values ('weekly', "
          "17264017408, " +
          literal(keybase) + ", " + literal(etc) + ", 1)");
  forget();
  load();
  EXPECT_EQ(
      records(),
      (LogRecords{kTryToLoad, sizes(keybase.size(), etc.size()),
                  says(kLoad, 2, refusal("cannot modify Config because it is a view", kStampFirst, 1), {4}),
                  kNoChange}));
  EXPECT_EQ(files_below(etc_dir()), etc_files);
}

// What goes wrong after the stamp

TEST_F(StorageLoad, TheStampStaysWhenTheArchiveIsNone) {
  put(row(1, "x'00'", "x'00'"));
  host.on_command = test::fail_commands("tar xzf ", 7);
  const auto error = test::thrown_by<XExternalFailure>([this] { load(); });
  EXPECT_EQ(error.Status(), 36);
  EXPECT_EQ(error.ErrorMessage(), std::string());
  EXPECT_EQ(commands(), (Texts{kUnpackEtc[0], kUnpackEtc[2]}));
  EXPECT_EQ(records(), (LogRecords{kTryToLoad, sizes(1, 1), kOneChange,
                                   unpack_says("failed to extract files with error code: 7", {4})}));
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, AKeybaseThatTarRefusesFailsAfterEtcIsInPlace) {
  put(row(1, "x'00'", literal(etc)));
  EXPECT_EQ(test::thrown_by<XExternalFailure>([this] { load(); }).Status(), 36);
  EXPECT_EQ(commands(), (kUnpackEtc + Texts{kUnpackKeybase[0], kUnpackKeybase[2]}));
  EXPECT_EQ(files_below(etc_dir()), etc_files);
  EXPECT_EQ(files_below(config_dir()), Files());
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, AMissingTargetFailsAfterTheStamp) {
  put(row(1));
  const std::string target = root() + "/missing/";
  const auto error =
      test::thrown_by<XTOOStatus>([&] { storage->Load("weekly", target.c_str(), kCurrent, true); });
  EXPECT_EQ(error.Status(), 3);
  EXPECT_EQ(error.ErrorMessage(), std::string("No such file or directory"));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, WithoutATemporaryDirectoryItFailsAfterTheStamp) {
  put(row(1));
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  const auto error = test::thrown_by<XTOOStatus>([this] { load(); });
  EXPECT_EQ(error.Status(), 17);
  EXPECT_EQ(error.ErrorMessage(), std::string("No such file or directory"));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, ADatabaseFileThatCannotBeDeletedFailsAfterTheStamp) {
  put(row(1));
  fs::create_directory(config_dir() + "user/config.idx");
  EXPECT_EQ(test::thrown_by<XExternalFailure>([this] { load(); }).Status(), 43);
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, WhatTheHostThrowsWhileUnpackingPassesThrough) {
  put(row(1));
  host.on_command = [this](const std::string&) -> std::optional<int> {
    EXPECT_EQ(temp_files().size(), 2U);
    throw std::runtime_error("the host has enough");
  };
  const auto error = test::thrown_by<std::runtime_error>([this] { load(); });
  EXPECT_EQ(error.what(), std::string("the host has enough"));
  EXPECT_EQ(temp_files(), Texts());
  EXPECT_EQ(test::names_in(etc_dir()), Texts());
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

TEST_F(StorageLoad, WithoutACommitTheStampOfAFailedLoadIsUndone) {
  put(row(1, "x'00'", "x'00'"));
  storage->Begin();
  EXPECT_THROW(load(), XExternalFailure);
  storage.reset();
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}}));
}

/// Leaves SQLite little more memory than it has now.
class ShortOfMemory {
 public:
  ShortOfMemory() : before_(sqlite3_hard_heap_limit64(sqlite3_memory_used() + 4000000)) {}
  ShortOfMemory(const ShortOfMemory&) = delete;
  ShortOfMemory& operator=(const ShortOfMemory&) = delete;
  ~ShortOfMemory() { sqlite3_hard_heap_limit64(before_); }

 private:
  sqlite3_int64 before_;
};

TEST_F(StorageLoad, ABlobThatDoesNotFitIntoMemoryIsNotTakenForAnEmptyOne) {
  rearrange(
      "drop table Config; create table Sizes (size); insert into Sizes values (100000000); "
      "create view Config as select 'weekly' as name, 17264017408 as version, "
      "zeroblob(size) as keybase, x'00' as etc, 1 as type, 1 as id from Sizes");
  {
    const ShortOfMemory memory;
    EXPECT_THROW(load(), std::bad_alloc);
  }
  EXPECT_EQ(statements(), Texts{kSelectWeekly});
  EXPECT_EQ(records(), LogRecords{kTryToLoad});
  EXPECT_EQ(commands(), Texts());
}

// ---------------------------------------------------------------------------------------------------
// The flag, and a storage that is not opened

TEST_F(StorageLoad, TheOpenedFlagIsNotAsked) {
  put(row(1));
  storage->opened = false;
  load();
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}}));
}

using UnopenedLoad = test::Gateway;

TEST_F(UnopenedLoad, FindsNothing) {
  setenv("KELMOR_DYNAMIC_DIR", (root() + "/missing").c_str(), 1);
  ConfSave::Storage storage;
  EXPECT_FALSE(storage.opened);
  host.records.clear();
  const auto error = test::thrown_by<XNotFound>([&] { storage.Load("weekly", nullptr, kCurrent, true); });
  EXPECT_EQ(error.Status(), 0);
  EXPECT_EQ(error.ErrorMessage(), std::string());
  const std::string text =
      "SQL error: out of memory. Query: select keybase, etc, type, id from 'Config' where "
      "name!='corlu-config' and name='weekly' and version=17264017408";
  EXPECT_EQ(host.records, (LogRecords{kTryToLoad, says(kLoad, 2, text + " (return code: 21)", {4}),
                                      says(kLoad, 1, text)}));
  EXPECT_EQ(host.commands, Texts());
  EXPECT_FALSE(test::exists(root() + "/missing"));
}

}  // namespace
