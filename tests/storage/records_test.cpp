#include "confsave.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <limits>
#include <locale>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "storage/authorizer.h"
#include "support/grouped_digits.h"
#include "support/opened_storage.h"

namespace {

namespace fs = std::filesystem;

using ConfSave::conf_corlu;
using ConfSave::conf_full;
using ConfSave::conf_part;
using ConfSave::conftype;
using ConfSave::int64;
using ConfSave::XConstraint;
using ConfSave::XExternalFailure;
using test::GroupedDigits;
using test::kCreate;
using test::kCurrent;
using test::kDelete;
using test::kExists;
using test::kPackCorlu;
using test::kPackEtc;
using test::kPackFull;
using test::kPackPart;
using test::kUpdate;
using test::LogRecord;
using test::LogRecords;
using test::refusal;
using test::Rows;
using test::says;
using test::Texts;

using Bytes = std::vector<char>;
const LogRecord kTarFailed{1,
                           "void ConfSave::pack(const string&, const string&, const string&)",
                           "pack",
                           "source/archive",
                           "failed to create tar archive with error code: 7",
                           {4}};

/// A table that somebody else made: as ours, but a name and version may be there many times.
const std::string kForeignTable =
    "drop table Config; create table Config (id integer primary key, name, version, keybase, etc, type, "
    "save_time, load_time)";

const Texts kEtcMembers{"failover.ini", "failover.ini.crg", "failoverd-config.crg"};
const Texts kCorluMembers{"user/gateway.conf",    "user/gateway.key",   "user/gateway.key.pub",
                          "user/interfaces.conf", "user/routes.conf",   "user/filter.conf",
                          "user/nat.conf",        "user/services.conf", "user/users.conf",
                          "user/schedule.conf",   "user/notify.conf",   "user/config.db",
                          "user/config.idx",      "user/upgrade.conf",  "user/corlucfg-config.crg"};

/// Returns when the clock shows a later second than before.
std::time_t wait_for_the_next_second() {
  const std::time_t start = std::time(nullptr);
  while (std::time(nullptr) == start) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return std::time(nullptr);
}

/// The descriptors of this process that are open on files below `dir`.
std::vector<int> descriptors_below(const std::string& dir) {
  std::vector<int> found;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string file = fs::read_symlink(entry.path(), gone).string();
    if (file.compare(0, dir.size(), dir) == 0) found.push_back(std::stoi(entry.path().filename().string()));
  }
  return found;
}

/// An opened storage over a whole configuration.
class OpenedStorage : public test::OpenedStorage {
 protected:
  OpenedStorage() { make_configuration(); }

  void drop_table() {
    test::Database(database()).run("drop table Config");
    sqlite3_exec(connection, "select * from sqlite_schema", nullptr, nullptr, nullptr);  // It takes note.
    forget();
  }

  void create() { storage->Create("weekly", conf_full, kCurrent); }
  void update() { storage->Update("weekly", conf_full, kCurrent); }

  /// All rows: id, name, version, type, save_time, load_time.
  Rows rows() const {
    return query("select id, name, version, type, save_time, load_time from Config order by id");
  }

  /// A blob of the row `id`; nothing for NULL.
  std::optional<Bytes> blob(const std::string& column, int id) const {
    const test::Database db(database());
    sqlite3_stmt* statement = nullptr;
    const std::string sql = "select " + column + " from Config where id=" + std::to_string(id);
    sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &statement, nullptr);
    std::optional<Bytes> bytes;
    if (sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_type(statement, 0) == SQLITE_BLOB) {
      const auto* data = static_cast<const char*>(sqlite3_column_blob(statement, 0));
      bytes.emplace(data, data + sqlite3_column_bytes(statement, 0));
    }
    sqlite3_finalize(statement);
    return bytes;
  }

  /// Lets tar run, and keeps what it wrote in `written`.
  void keep_archives() {
    host.on_command = [this](const std::string& command) -> std::optional<int> {
      std::smatch archive;
      std::regex_search(command, archive, std::regex(temp_dir() + "/[A-Za-z0-9]{6}"));
      const int result = test::shell(command);
      const std::string bytes = test::read_file(archive.str());
      written.emplace_back(bytes.begin(), bytes.end());
      return result;
    };
  }

  /// What cannot be compressed, so that the archive with it is larger than this.
  void make_large(const std::string& file) {
    EXPECT_EQ(test::shell("head -c 30000 /dev/urandom > " + file), 0);
  }

  /// Lowers the limit that SQLite sets to a value, and with it to a row.
  void limit_values(int bytes) { sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, bytes); }

  /// The record that announces the saving is written between the packing and the fetching.
  void close_archives_before_they_are_fetched() {
    host.on_recorded = [this] {
      for (const int descriptor : descriptors_below(temp_dir())) close(descriptor);
    };
  }

  std::vector<Bytes> written;
};

/// Interrupts the statement when it has delivered its first row.
int interrupt(unsigned, void* db, void*, void*) {
  sqlite3_interrupt(static_cast<sqlite3*>(db));
  return 0;
}

/// Makes count(*) answer `text`, or NULL.
void answer_count_with(sqlite3* db, const char* text) {
  const auto step = [](sqlite3_context*, int, sqlite3_value**) {};
  const auto finish = [](sqlite3_context* context) {
    sqlite3_result_text(context, static_cast<const char*>(sqlite3_user_data(context)), -1, SQLITE_STATIC);
  };
  ASSERT_EQ(
      sqlite3_create_function(db, "count", 0, SQLITE_UTF8, const_cast<char*>(text), nullptr, step, finish),
      SQLITE_OK);
}

// ---------------------------------------------------------------------------------------------------
// Exists

using StorageExists = OpenedStorage;

const std::string kCountWeekly =
    "select count(*) from 'Config' where name='weekly' and version=17264017408";

TEST_F(StorageExists, AnEmptyTableHoldsNothing) {
  EXPECT_FALSE(storage->Exists("weekly", kCurrent));
  EXPECT_EQ(statements(), Texts{kCountWeekly});
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
}

TEST_F(StorageExists, ACreatedConfigurationExists) {
  create();
  forget();
  EXPECT_TRUE(storage->Exists("weekly", kCurrent));
  EXPECT_EQ(statements(), Texts{kCountWeekly});
  EXPECT_EQ(records(), LogRecords());
}

TEST_F(StorageExists, AnotherVersionIsAnotherConfiguration) {
  put({"weekly", kCurrent});
  EXPECT_FALSE(storage->Exists("weekly", 0));
  EXPECT_FALSE(storage->Exists("weekly", kCurrent + 1));  // It prints as 4.5.4, too.
}

TEST_F(StorageExists, AnotherNameIsAnotherConfiguration) {
  put({"weekly", kCurrent});
  for (const char* name : {"Weekly", "weekl", "weekly ", "week*", ""}) {
    EXPECT_FALSE(storage->Exists(name, kCurrent)) << name;
  }
}

TEST_F(StorageExists, EveryVersionNumberIsWrittenInFull) {
  put({"weekly", 0});
  put({"weekly", std::numeric_limits<int64>::max()});
  put({"weekly", std::numeric_limits<int64>::min()});
  EXPECT_TRUE(storage->Exists("weekly", 0));
  EXPECT_TRUE(storage->Exists("weekly", std::numeric_limits<int64>::max()));
  EXPECT_TRUE(storage->Exists("weekly", std::numeric_limits<int64>::min()));
  EXPECT_EQ(statements(), (Texts{
                              "select count(*) from 'Config' where name='weekly' and version=0",
                              "select count(*) from 'Config' where name='weekly' and "
                              "version=9223372036854775807",
                              "select count(*) from 'Config' where name='weekly' and "
                              "version=-9223372036854775808",
                          }));
}

TEST_F(StorageExists, DigitGroupsOfTheLocaleStayOutOfTheStatement) {
  const GroupedDigits grouped;
  EXPECT_FALSE(storage->Exists("weekly", kCurrent));
  EXPECT_EQ(statements(), Texts{kCountWeekly});
}

TEST_F(StorageExists, TwoRowsOfAForeignTableExist) {
  rearrange(kForeignTable);
  put({"weekly", kCurrent});
  put({"weekly", kCurrent});
  EXPECT_TRUE(storage->Exists("weekly", kCurrent));
}

TEST_F(StorageExists, AMissingTableCountsAsHoldingIt) {
  drop_table();
  EXPECT_TRUE(storage->Exists("weekly", kCurrent));
  EXPECT_EQ(records(),
            (LogRecords{says(kExists, 2, refusal("no such table: Config", kCountWeekly, 1), {4})}));
}

TEST_F(StorageExists, ATableOfAnotherShapeCountsAsHoldingIt) {
  rearrange("drop table Config; create table Config (colour text)");
  EXPECT_TRUE(storage->Exists("weekly", kCurrent));
  EXPECT_EQ(records(),
            (LogRecords{says(kExists, 2, refusal("no such column: name", kCountWeekly, 1), {4})}));
  EXPECT_EQ(statements(), Texts());
}

TEST_F(StorageExists, ANameWithAQuoteCountsAsExisting) {
  EXPECT_TRUE(storage->Exists("o'hare", 0));
  EXPECT_EQ(records(),
            (LogRecords{says(kExists, 2,
                             "SQL error: near \"hare\": syntax error. Query: select count(*) from "
                             "'Config' where name='o'hare' and version=0 (return code: 1)",
                             {4})}));
}

TEST_F(StorageExists, TheNameIsPastedAsItIs) {
  put({"o''hare", 0});
  EXPECT_TRUE(storage->Exists("o''hare", 0));
  EXPECT_TRUE(storage->Exists("nobody' or 'a'='a", 0));
}

TEST_F(StorageExists, ARefusalIsReportedFromLevel2) {
  rearrange("drop table Config; create table Config (colour text)");
  const auto call = [this] { EXPECT_TRUE(storage->Exists("weekly", kCurrent)); };
  const LogRecords report{says(kExists, 2, refusal("no such column: name", kCountWeekly, 1), {4})};
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(logged_at(1, call), LogRecords());
  EXPECT_EQ(logged_at(2, call), report);
  EXPECT_EQ(logged_at(4, call), report);
}

TEST_F(StorageExists, TheCountIsReadAsADecimalTextOf32Bits) {
  const std::vector<std::pair<const char*, bool>> answers{
      {nullptr, false},  {"0", false}, {"", false},           {"0x10", false},     {"10", true},
      {" 7 rows", true}, {"-1", true}, {"4294967296", false}, {"4294967297", true}};
  for (const auto& [text, exists] : answers) {
    answer_count_with(connection, text);
    EXPECT_EQ(storage->Exists("weekly", kCurrent), exists) << (text != nullptr ? text : "NULL");
  }
  EXPECT_EQ(records(), LogRecords());
}

TEST_F(StorageExists, AFailureAfterTheCountLeavesTheCount) {
  answer_count_with(connection, "0");
  sqlite3_trace_v2(connection, SQLITE_TRACE_ROW, interrupt, connection);
  EXPECT_FALSE(storage->Exists("weekly", kCurrent));
  EXPECT_EQ(records(), (LogRecords{says(kExists, 2, refusal("interrupted", kCountWeekly, 9), {4})}));
}

// ---------------------------------------------------------------------------------------------------
// Delete

using StorageDelete = OpenedStorage;

const std::string kDeleteWeekly = "delete from 'Config' where name='weekly' and version=17264017408";

TEST_F(StorageDelete, TheRowIsGone) {
  put({"weekly", kCurrent});
  storage->Delete("weekly", kCurrent);
  EXPECT_EQ(statements(), Texts{kDeleteWeekly});
  EXPECT_EQ(records(), LogRecords{says(kDelete, 4, "config name 'weekly'")});
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageDelete, OnlyThatNameAndVersionGoes) {
  put({"weekly", kCurrent});
  put({"weekly", kCurrent + 1});
  put({"weekly", 0});
  put({"daily", kCurrent});
  storage->Delete("weekly", kCurrent);
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "17264017409", "1", "1000", "NULL"},
                          {"3", "weekly", "0", "1", "1000", "NULL"},
                          {"4", "daily", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(StorageDelete, AMissingRowIsNoError) {
  put({"daily", kCurrent});
  storage->Delete("weekly", kCurrent);
  EXPECT_EQ(statements(), Texts{kDeleteWeekly});
  EXPECT_EQ(records(), LogRecords{says(kDelete, 4, "config name 'weekly'")});
  EXPECT_EQ(rows(), (Rows{{"1", "daily", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(StorageDelete, ANameThatDiffersInLetterCaseStays) {
  put({"Weekly", kCurrent});
  storage->Delete("weekly", kCurrent);
  EXPECT_EQ(rows(), (Rows{{"1", "Weekly", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(StorageDelete, AllRowsOfAForeignTableGo) {
  rearrange(kForeignTable);
  put({"weekly", kCurrent});
  put({"weekly", kCurrent});
  storage->Delete("weekly", kCurrent);
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageDelete, DigitGroupsOfTheLocaleStayOutOfTheStatement) {
  put({"weekly", kCurrent});
  const GroupedDigits grouped;
  storage->Delete("weekly", kCurrent);
  EXPECT_EQ(statements(), Texts{kDeleteWeekly});
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageDelete, ANameWithAQuoteIsRefused) {
  put({"o''hare", 0});
  storage->Delete("o'hare", 0);
  EXPECT_EQ(records(),
            (LogRecords{says(kDelete, 4, "config name 'o'hare'"),
                        says(kDelete, 2,
                             "SQL error: near \"hare\": syntax error. Query: delete from 'Config' "
                             "where name='o'hare' and version=0 (return code: 1)",
                             {4})}));
  EXPECT_EQ(rows(), (Rows{{"1", "o'hare", "0", "1", "1000", "NULL"}}));
}

TEST_F(StorageDelete, TheNameIsPastedAsItIs) {
  put({"weekly", 0});
  put({"daily", kCurrent});
  put({"daily", 0});
  storage->Delete("weekly' or name='daily", kCurrent);
  EXPECT_EQ(rows(), (Rows{{"3", "daily", "0", "1", "1000", "NULL"}}));
}

TEST_F(StorageDelete, ARefusalIsReportedFromLevel2) {
  rearrange("create trigger keep before delete on Config begin select raise(abort, 'kept'); end");
  put({"weekly", kCurrent});
  const auto call = [this] { storage->Delete("weekly", kCurrent); };
  const LogRecord name = says(kDelete, 4, "config name 'weekly'");
  const LogRecord report = says(kDelete, 2, refusal("kept", kDeleteWeekly, 19), {4});
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(logged_at(1, call), LogRecords());
  EXPECT_EQ(logged_at(2, call), LogRecords{report});
  EXPECT_EQ(logged_at(3, call), LogRecords{report});
  EXPECT_EQ(logged_at(4, call), (LogRecords{name, report}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(StorageDelete, AMissingTableIsReported) {
  drop_table();
  storage->Delete("weekly", kCurrent);
  EXPECT_EQ(records(),
            (LogRecords{says(kDelete, 4, "config name 'weekly'"),
                        says(kDelete, 2, refusal("no such table: Config", kDeleteWeekly, 1), {4})}));
}

// ---------------------------------------------------------------------------------------------------
// Create

using StorageCreate = OpenedStorage;

const std::string kInsertWeekly =
    "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
    "('weekly',?,?,17264017408,<now>,1)";
const LogRecord kTryToSave =
    says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017408)", {8});
const LogRecord kTaken = says(
    kCreate, 2, refusal("UNIQUE constraint failed: Config.name, Config.version", kInsertWeekly, 19), {4});
const LogRecord kFinalizedTaken = says(kCreate, 1, "sqlite3_finalize() return code 19", {4});

TEST_F(StorageCreate, TheConfigurationIsPackedAndStored) {
  create();
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(statements(), Texts{kInsertWeekly});
  EXPECT_EQ(records(), (LogRecords{kTryToSave, says(kCreate, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "<now>", "NULL"}}));
}

TEST_F(StorageCreate, EachLevelLogsItsShare) {
  int number = 0;
  const auto call = [&] { storage->Create("weekly", conf_full, kCurrent + number++); };
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(logged_at(1, call), LogRecords());
  EXPECT_EQ(
      logged_at(2, call),
      (LogRecords{says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017410)", {8})}));
  EXPECT_EQ(
      logged_at(3, call),
      (LogRecords{says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017411)", {8})}));
  EXPECT_EQ(logged_at(4, call),
            (LogRecords{says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017412)", {8}),
                        says(kCreate, 4, "sqlite3_total_changes: 5", {4})}));
}

TEST_F(StorageCreate, TheTypeIsStoredAndDecidesWhatIsPacked) {
  storage->Create("none", static_cast<conftype>(0), 0);
  storage->Create("part", conf_part, 0);
  storage->Create("corlu", conf_corlu, 0);
  storage->Create("seven", static_cast<conftype>(7), 0);
  storage->Create("below", static_cast<conftype>(-1), 0);
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart, kPackEtc, kPackPart, kPackCorlu, kPackEtc, kPackPart,
                               kPackEtc, kPackPart}));
  EXPECT_EQ(statements(), (Texts{
                              "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                              "('none',?,?,0,<now>,0)",
                              "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                              "('part',?,?,0,<now>,2)",
                              "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                              "('corlu',?,?,0,<now>,3)",
                              "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                              "('seven',?,?,0,<now>,7)",
                              "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                              "('below',?,?,0,<now>,-1)",
                          }));
  EXPECT_EQ(query("select name, type, typeof(type), typeof(keybase), typeof(etc) from Config"),
            (Rows{{"none", "0", "integer", "blob", "blob"},
                  {"part", "2", "integer", "blob", "blob"},
                  {"corlu", "3", "integer", "blob", "null"},
                  {"seven", "7", "integer", "blob", "blob"},
                  {"below", "-1", "integer", "blob", "blob"}}));
}

TEST_F(StorageCreate, TheBlobsAreWhatTarWrote) {
  keep_archives();
  create();
  ASSERT_EQ(written.size(), 2U);
  EXPECT_EQ(blob("etc", 1), written[0]);
  EXPECT_EQ(blob("keybase", 1), written[1]);
  EXPECT_EQ(test::members(written[0]), kEtcMembers);
}

TEST_F(StorageCreate, TheBlobOfTheCorluTypeIsWhatTarWrote) {
  keep_archives();
  storage->Create("weekly", conf_corlu, kCurrent);
  ASSERT_EQ(written.size(), 1U);
  EXPECT_EQ(blob("keybase", 1), written[0]);
  EXPECT_EQ(test::members(written[0]), kCorluMembers);
  EXPECT_EQ(query("select etc is null from Config"), (Rows{{"1"}}));
}

TEST_F(StorageCreate, ALargeArchiveIsStoredWhole) {
  make_large(config_dir() + "user/gateway.conf");
  keep_archives();
  create();
  ASSERT_EQ(written.size(), 2U);
  EXPECT_GT(written[1].size(), 30000U);
  EXPECT_EQ(blob("keybase", 1), written[1]);
}

TEST_F(StorageCreate, EmptyArchivesAreStoredAsNull) {
  host.on_command = test::fail_commands("cd ", 0);  // Tar does not run and the files stay empty.
  create();
  EXPECT_EQ(query("select name, typeof(keybase), typeof(etc) from Config"),
            (Rows{{"weekly", "null", "null"}}));
  EXPECT_EQ(records(), (LogRecords{kTryToSave, says(kCreate, 4, "sqlite3_total_changes: 1", {4})}));
}

TEST_F(StorageCreate, AnotherVersionIsASecondRow) {
  create();
  storage->Create("weekly", conf_part, kCurrent + 1);
  storage->Create("weekly", conf_corlu, 0);
  EXPECT_EQ(records(),
            (LogRecords{kTryToSave, says(kCreate, 4, "sqlite3_total_changes: 1", {4}),
                        says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017409)", {8}),
                        says(kCreate, 4, "sqlite3_total_changes: 2", {4}),
                        says(kCreate, 2, "Try to save configuration 'weekly' (version 0)", {8}),
                        says(kCreate, 4, "sqlite3_total_changes: 3", {4})}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "<now>", "NULL"},
                          {"2", "weekly", "17264017409", "2", "<now>", "NULL"},
                          {"3", "weekly", "0", "3", "<now>", "NULL"}}));
}

TEST_F(StorageCreate, NamesAreNeitherCheckedNorCut) {
  const std::string name(300, 'x');
  storage->Create(name, conf_corlu, 0);
  storage->Create("", conf_corlu, 0);
  storage->Create("\xc3\xbc \"%s?", conf_corlu, 0);
  EXPECT_EQ(query("select name from Config order by id"), (Rows{{name}, {""}, {"\xc3\xbc \"%s?"}}));
}

TEST_F(StorageCreate, VersionsReachFromEndToEnd) {
  storage->Create("weekly", conf_corlu, std::numeric_limits<int64>::max());
  storage->Create("weekly", conf_corlu, std::numeric_limits<int64>::min());
  EXPECT_EQ(query("select version, typeof(version) from Config order by id"),
            (Rows{{"9223372036854775807", "integer"}, {"-9223372036854775808", "integer"}}));
  EXPECT_EQ(test::thrown_by<XConstraint>([this] {
              storage->Create("weekly", conf_corlu, std::numeric_limits<int64>::min());
            }).ErrorMessage(),
            std::string("Configuration 'weekly' (version -2147483648.0.0) already exists"));
}

TEST_F(StorageCreate, TakenNameThrowsConstraint) {
  put({"weekly", kCurrent});
  const auto error = test::thrown_by<XConstraint>([this] { create(); });
  EXPECT_EQ(error.Status(), 0);
  EXPECT_TRUE(error.IsError());
  EXPECT_EQ(error.ErrorMessage(), std::string("Configuration 'weekly' (version 4.5.4) already exists"));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(statements(), Texts{kInsertWeekly});
  EXPECT_EQ(records(), (LogRecords{kTryToSave, kTaken, kFinalizedTaken}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(StorageCreate, ATakenNameOfNoVersionHasAnEmptyVersionInItsMessage) {
  storage->Create("weekly", conf_full, 0);
  const auto error = test::thrown_by<XConstraint>([this] { storage->Create("weekly", conf_full, 0); });
  EXPECT_EQ(error.Status(), 0);
  EXPECT_EQ(error.ErrorMessage(), std::string("Configuration 'weekly' (version ) already exists"));
}

TEST_F(StorageCreate, EachLevelLogsItsShareOfATakenName) {
  put({"weekly", kCurrent});
  const auto call = [this] { EXPECT_THROW(storage->Create("weekly", conf_full, kCurrent), XConstraint); };
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(logged_at(1, call), LogRecords{kFinalizedTaken});
  EXPECT_EQ(logged_at(2, call), (LogRecords{kTryToSave, kTaken, kFinalizedTaken}));
  EXPECT_EQ(logged_at(4, call), (LogRecords{kTryToSave, kTaken, kFinalizedTaken}));
}

TEST_F(StorageCreate, WithoutALogATakenNameStillThrows) {
  put({"weekly", kCurrent});
  host.no_log = true;
  EXPECT_THROW(storage->Create("weekly", conf_full, kCurrent), XConstraint);
  EXPECT_EQ(records(), LogRecords());
}

TEST_F(StorageCreate, EveryConstraintCountsAsATakenName) {
  rearrange("create trigger full before insert on Config begin select raise(abort, 'no room'); end");
  const auto error = test::thrown_by<XConstraint>([this] { create(); });
  EXPECT_EQ(error.Status(), 0);
  EXPECT_EQ(error.ErrorMessage(), std::string("Configuration 'weekly' (version 4.5.4) already exists"));
  EXPECT_EQ(records(), (LogRecords{kTryToSave, says(kCreate, 2, refusal("no room", kInsertWeekly, 19), {4}),
                                   kFinalizedTaken}));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, AnotherRefusalIsOnlyLogged) {
  sqlite3_set_authorizer(connection, nullptr, nullptr);  // It refuses what sets this up.
  sqlite3_exec(connection, "pragma query_only=on", nullptr, nullptr, nullptr);
  ConfSave::sql::install_authorizer(connection);
  forget();
  const LogRecord report =
      says(kCreate, 2, refusal("attempt to write a readonly database", kInsertWeekly, 8), {4});
  const LogRecord finalized = says(kCreate, 1, "sqlite3_finalize() return code 8", {4});
  const auto call = [this] { create(); };
  EXPECT_EQ(logged_at(4, call),
            (LogRecords{kTryToSave, report, finalized, says(kCreate, 4, "sqlite3_total_changes: 0", {4})}));
  EXPECT_EQ(logged_at(2, call), (LogRecords{kTryToSave, report, finalized}));
  EXPECT_EQ(logged_at(1, call), LogRecords{finalized});
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, AMissingTableStoresNothing) {
  drop_table();
  const LogRecord report = says(kCreate, 2, refusal("no such table: Config", kInsertWeekly, 1), {4});
  const LogRecord none = says(kCreate, 1, "Error: sqlite3_stmt *plineInfo == NULL");
  const auto call = [this] { create(); };
  EXPECT_EQ(logged_at(4, call), (LogRecords{kTryToSave, report, none}));
  EXPECT_EQ(logged_at(2, call), (LogRecords{kTryToSave, report, none}));
  EXPECT_EQ(logged_at(1, call), LogRecords{none});
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(statements(), Texts());
}

TEST_F(StorageCreate, ATableThatGoesWhileItIsPackedIsMissedByTheStep) {
  test::Database(database()).run("drop table Config");
  forget();
  create();
  EXPECT_EQ(
      records(),
      (LogRecords{kTryToSave, says(kCreate, 2, refusal("no such table: Config", kInsertWeekly, 1), {4}),
                  says(kCreate, 1, "sqlite3_finalize() return code 1", {4}),
                  says(kCreate, 4, "sqlite3_total_changes: 0", {4})}));
}

TEST_F(StorageCreate, ATableOfAnotherShapeStoresNothing) {
  rearrange("drop table Config; create table Config (name text, version integer)");
  create();
  EXPECT_EQ(records(),
            (LogRecords{kTryToSave,
                        says(kCreate, 2,
                             refusal("table Config has no column named keybase", kInsertWeekly, 1), {4}),
                        says(kCreate, 1, "Error: sqlite3_stmt *plineInfo == NULL")}));
  EXPECT_EQ(query("select * from Config"), Rows());
}

TEST_F(StorageCreate, ANameWithAQuoteStoresNothing) {
  storage->Create("o'hare", conf_full, 0);
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(records(),
            (LogRecords{says(kCreate, 2, "Try to save configuration 'o'hare' (version 0)", {8}),
                        says(kCreate, 2,
                             "SQL error: near \"hare\": syntax error. Query: insert into 'Config' "
                             "(name,keybase,etc,version, save_time, type) values "
                             "('o'hare',?,?,0,<now>,1) (return code: 1)",
                             {4}),
                        says(kCreate, 1, "Error: sqlite3_stmt *plineInfo == NULL")}));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, TheNameIsPastedAsItIs) {
  storage->Create("o''hare", conf_full, 0);
  EXPECT_EQ(rows(), (Rows{{"1", "o'hare", "0", "1", "<now>", "NULL"}}));
}

TEST_F(StorageCreate, ANameThatLeavesNoParameterDecidesTheRow) {
  storage->Create("a',null,null,1,2,3)--", conf_full, 0);
  EXPECT_EQ(
      records(),
      (LogRecords{says(kCreate, 2, "Try to save configuration 'a',null,null,1,2,3)--' (version 0)", {8}),
                  says(kCreate, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(query("select name, keybase, etc, version, save_time, type from Config"),
            (Rows{{"a", "NULL", "NULL", "1", "2", "3"}}));
}

TEST_F(StorageCreate, AnArchiveThatSqliteRefusesBecomesNull) {
  for (const auto& [large, stored] : {std::pair{config_dir() + "user/gateway.conf", Texts{"null", "blob"}},
                                      std::pair{etc_dir() + "failover.ini", Texts{"blob", "null"}}}) {
    make_large(large);
    limit_values(10000);
    forget();
    create();
    EXPECT_EQ(statements(), Texts{kInsertWeekly});
    EXPECT_EQ(records(), (LogRecords{kTryToSave, says(kCreate, 4, "sqlite3_total_changes: 1", {4})}));
    EXPECT_EQ(query("select typeof(keybase), typeof(etc) from Config"), Rows{stored});
    test::write_file(large, "small");
    test::Database(database()).run("delete from Config");
    open();
  }
}

TEST_F(StorageCreate, ARowThatIsTooLargeAsAWholeStoresNothing) {
  make_large(config_dir() + "user/gateway.conf");
  make_large(etc_dir() + "failover.ini");
  limit_values(40000);
  create();
  EXPECT_EQ(statements(), Texts{kInsertWeekly});
  EXPECT_EQ(
      records(),
      (LogRecords{kTryToSave, says(kCreate, 2, refusal("string or blob too big", kInsertWeekly, 18), {4}),
                  says(kCreate, 1, "sqlite3_finalize() return code 18", {4}),
                  says(kCreate, 4, "sqlite3_total_changes: 0", {4})}));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, ATarThatFailsForEtcLeavesTheTableAlone) {
  host.on_command = test::fail_commands("cd /mnt/main/etc/", 7);
  const auto error = test::thrown_by<XExternalFailure>([this] { create(); });
  EXPECT_EQ(error.Status(), 36);
  EXPECT_EQ(error.ErrorMessage(), std::string());
  EXPECT_EQ(commands(), Texts{kPackEtc});
  EXPECT_EQ(records(), LogRecords{kTarFailed});
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, ATarThatFailsForKeybaseLeavesTheTableAlone) {
  host.on_command = test::fail_commands("cd " + config_dir(), 7);
  const auto error = test::thrown_by<XExternalFailure>([this] { create(); });
  EXPECT_EQ(error.Status(), 36);
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(records(), LogRecords{kTarFailed});
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, AMissingConfigurationDirectoryCannotBePacked) {
  fs::remove_all(config_dir());
  const auto error =
      test::thrown_by<XExternalFailure>([this] { storage->Create("weekly", conf_corlu, kCurrent); });
  EXPECT_EQ(error.Status(), 36);
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, ADatabaseThatCannotBeLookedForLeavesTheTableAlone) {
  fs::remove_all(config_dir() + "user");
  test::write_file(config_dir() + "user", "not a directory");
  const auto error = test::thrown_by<XExternalFailure>([this] { create(); });
  EXPECT_EQ(error.Status(), 19);
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, WithoutATemporaryDirectoryTheTableIsLeftAlone) {
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  const auto error = test::thrown_by<XTOOStatus>([this] { create(); });
  EXPECT_EQ(error.Status(), 17);
  EXPECT_EQ(error.ErrorMessage(), std::string("No such file or directory"));
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, ArchivesThatCannotBeFetchedAreAnnouncedAndNotStored) {
  close_archives_before_they_are_fetched();
  const auto error = test::thrown_by<XTOOStatus>([this] { create(); });
  EXPECT_EQ(error.Status(), 54);
  EXPECT_EQ(error.ErrorMessage(), std::string("Bad file descriptor"));
  EXPECT_EQ(records(), LogRecords{kTryToSave});
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, WhatTheHostThrowsWhilePackingPassesThrough) {
  host.on_command = [this](const std::string& command) -> std::optional<int> {
    if (command.compare(0, 17, "cd /mnt/main/etc/") == 0) return std::nullopt;
    EXPECT_EQ(temp_files().size(), 2U);
    throw std::runtime_error("the host has enough");
  };
  const auto error = test::thrown_by<std::runtime_error>([this] { create(); });
  EXPECT_EQ(error.what(), std::string("the host has enough"));
  EXPECT_EQ(temp_files(), Texts());
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), Rows());
}

TEST_F(StorageCreate, TheTimeIsTakenAfterThePacking) {
  std::time_t packed = 0;
  host.on_command = [&](const std::string& command) -> std::optional<int> {
    const int result = test::shell(command);
    packed = wait_for_the_next_second();
    return result;
  };
  storage->Create("weekly", conf_corlu, kCurrent);
  EXPECT_GE(std::stoll(test::Database(database()).value("select save_time from Config")), packed);
}

TEST_F(StorageCreate, TheArchivesLiveUntilTheRowIsWritten) {
  std::size_t files = 0;
  sqlite3_update_hook(
      connection,
      [](void* count, int, const char*, const char*, sqlite3_int64) {
        *static_cast<std::size_t*>(count) = descriptors_below(std::getenv("KELMOR_TEMP_DIR")).size();
      },
      &files);
  create();
  EXPECT_EQ(files, 2U);
  EXPECT_EQ(temp_files(), Texts());
}

TEST_F(StorageCreate, DigitGroupsOfTheLocaleStayOutOfTheStatement) {
  const GroupedDigits grouped;
  create();
  EXPECT_EQ(statements(), Texts{kInsertWeekly});
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "<now>", "NULL"}}));
  EXPECT_EQ(test::thrown_by<XConstraint>([this] { create(); }).ErrorMessage(),
            std::string("Configuration 'weekly' (version 4.5.4) already exists"));
}

TEST_F(StorageCreate, InATransactionTheRowTakesEffectAtTheCommit) {
  storage->Begin();
  create();
  storage->Delete("weekly", kCurrent);
  storage->Create("weekly", conf_part, kCurrent);
  EXPECT_FALSE(test::lock_is_free(database()));
  storage->Commit();
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "17264017408", "2", "<now>", "NULL"}}));
}

// ---------------------------------------------------------------------------------------------------
// Update

using StorageUpdate = OpenedStorage;

const LogRecord kTryToUpdate =
    says(kUpdate, 2, "Try to update configuration 'weekly' (version 17264017408)", {8});

TEST_F(StorageUpdate, WhatIsNotThereIsInserted) {
  update();
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(statements(), (Texts{kDeleteWeekly, kInsertWeekly}));
  EXPECT_EQ(records(), (LogRecords{kTryToUpdate, says(kUpdate, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "<now>", "NULL"}}));
}

TEST_F(StorageUpdate, TheOldRowIsReplaced) {
  put({"weekly", kCurrent, 1, "1000", "2000"});
  put({"weekly", 0, 1, "1000", "2000"});
  put({"daily", kCurrent, 1, "1000", "2000"});
  storage->Update("weekly", conf_part, kCurrent);
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart}));
  EXPECT_EQ(statements(), (Texts{kDeleteWeekly,
                                 "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                                 "('weekly',?,?,17264017408,<now>,2)"}));
  EXPECT_EQ(records(), (LogRecords{kTryToUpdate, says(kUpdate, 4, "sqlite3_total_changes: 2", {4})}));
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "0", "1", "1000", "2000"},
                          {"3", "daily", "17264017408", "1", "1000", "2000"},
                          {"4", "weekly", "17264017408", "2", "<now>", "NULL"}}));
}

TEST_F(StorageUpdate, TheStatementIsGoneBeforeTheChangesAreTold) {
  bool open = true;
  host.on_recorded = [&] { open = sqlite3_next_stmt(connection, nullptr) != nullptr; };
  update();
  EXPECT_FALSE(open);
}

TEST_F(StorageUpdate, TheLastRowIdIsNotUsedAgain) {
  put({"weekly", kCurrent});
  storage->Update("weekly", conf_corlu, kCurrent);
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "17264017408", "3", "<now>", "NULL"}}));
}

TEST_F(StorageUpdate, EachLevelLogsItsShare) {
  const auto call = [this] { update(); };
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(logged_at(1, call), LogRecords());
  EXPECT_EQ(logged_at(2, call), LogRecords{kTryToUpdate});
  EXPECT_EQ(logged_at(3, call), LogRecords{kTryToUpdate});
  EXPECT_EQ(logged_at(4, call),
            (LogRecords{kTryToUpdate, says(kUpdate, 4, "sqlite3_total_changes: 9", {4})}));
}

TEST_F(StorageUpdate, TheBlobsAreWhatTarWrote) {
  put({"weekly", kCurrent});
  keep_archives();
  update();
  ASSERT_EQ(written.size(), 2U);
  EXPECT_EQ(blob("etc", 2), written[0]);
  EXPECT_EQ(blob("keybase", 2), written[1]);
  EXPECT_EQ(test::members(written[0]), kEtcMembers);
}

TEST_F(StorageUpdate, TheBlobOfTheCorluTypeIsWhatTarWrote) {
  keep_archives();
  storage->Update("weekly", conf_corlu, kCurrent);
  ASSERT_EQ(written.size(), 1U);
  EXPECT_EQ(blob("keybase", 1), written[0]);
  EXPECT_EQ(test::members(written[0]), kCorluMembers);
  EXPECT_EQ(commands(), Texts{kPackCorlu});
  EXPECT_EQ(query("select etc is null from Config"), (Rows{{"1"}}));
}

TEST_F(StorageUpdate, EmptyArchivesAreStoredAsNull) {
  put({"weekly", kCurrent});
  host.on_command = test::fail_commands("cd ", 0);
  update();
  EXPECT_EQ(query("select id, typeof(keybase), typeof(etc) from Config"), (Rows{{"2", "null", "null"}}));
}

TEST_F(StorageUpdate, AnInsertThatAConstraintRefusesIsOnlyReported) {
  rearrange(kForeignTable + "; create unique index one_of_each on Config (type)");
  put({"daily", kCurrent, 1});
  put({"weekly", kCurrent, 2});
  const LogRecord report =
      says(kUpdate, 2, refusal("UNIQUE constraint failed: Config.type", kInsertWeekly, 19), {4});
  const auto call = [this] { update(); };
  EXPECT_EQ(logged_at(4, call),
            (LogRecords{kTryToUpdate, report, says(kUpdate, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(statements(), (Texts{kDeleteWeekly, kInsertWeekly}));
  EXPECT_EQ(rows(), (Rows{{"1", "daily", "17264017408", "1", "1000", "NULL"}}));
  EXPECT_EQ(logged_at(2, call), (LogRecords{kTryToUpdate, report}));
  EXPECT_EQ(logged_at(1, call), LogRecords());
}

TEST_F(StorageUpdate, ADeleteThatIsRefusedIsReportedAndTheInsertIsTried) {
  rearrange("create trigger keep before delete on Config begin select raise(abort, 'kept'); end");
  put({"weekly", kCurrent});
  const auto call = [this] { update(); };
  const LogRecord kept = says(kUpdate, 2, refusal("kept", kDeleteWeekly, 19), {4});
  const LogRecord taken = says(
      kUpdate, 2, refusal("UNIQUE constraint failed: Config.name, Config.version", kInsertWeekly, 19), {4});
  EXPECT_EQ(logged_at(4, call),
            (LogRecords{kTryToUpdate, kept, taken, says(kUpdate, 4, "sqlite3_total_changes: 0", {4})}));
  EXPECT_EQ(logged_at(1, call), LogRecords());
  EXPECT_EQ(logged_at(0, call), LogRecords());
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(StorageUpdate, ADeleteThatIsRefusedDoesNotKeepTheInsertFromSucceeding) {
  rearrange(kForeignTable +
            "; create trigger keep before delete on Config begin select raise(abort, 'kept'); end");
  put({"weekly", kCurrent});
  update();
  EXPECT_EQ(records(), (LogRecords{kTryToUpdate, says(kUpdate, 2, refusal("kept", kDeleteWeekly, 19), {4}),
                                   says(kUpdate, 4, "sqlite3_total_changes: 1", {4})}));
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"},
                          {"2", "weekly", "17264017408", "1", "<now>", "NULL"}}));
}

TEST_F(StorageUpdate, AMissingTableIsReportedForBothStatements) {
  drop_table();
  const LogRecord no_delete = says(kUpdate, 2, refusal("no such table: Config", kDeleteWeekly, 1), {4});
  const LogRecord no_insert = says(kUpdate, 2, refusal("no such table: Config", kInsertWeekly, 1), {4});
  const LogRecord none = says(kUpdate, 1, "Error: sqlite3_stmt *plineInfo == NULL");
  const auto call = [this] { update(); };
  EXPECT_EQ(logged_at(4, call), (LogRecords{kTryToUpdate, no_delete, no_insert, none}));
  EXPECT_EQ(logged_at(2, call), (LogRecords{kTryToUpdate, no_delete, no_insert, none}));
  EXPECT_EQ(logged_at(1, call), LogRecords{none});
  EXPECT_EQ(logged_at(0, call), LogRecords());
}

TEST_F(StorageUpdate, ATableOfAnotherShapeLosesTheRowAndGetsNone) {
  rearrange(
      "drop table Config; create table Config (name text, version integer); "
      "insert into Config values ('weekly', 17264017408), ('daily', 0)");
  update();
  EXPECT_EQ(records(),
            (LogRecords{kTryToUpdate,
                        says(kUpdate, 2,
                             refusal("table Config has no column named keybase", kInsertWeekly, 1), {4}),
                        says(kUpdate, 1, "Error: sqlite3_stmt *plineInfo == NULL")}));
  EXPECT_EQ(query("select * from Config"), (Rows{{"daily", "0"}}));
}

TEST_F(StorageUpdate, ANameWithAQuoteChangesNothing) {
  put({"o''hare", 0});
  storage->Update("o'hare", conf_full, 0);
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(records(),
            (LogRecords{says(kUpdate, 2, "Try to update configuration 'o'hare' (version 0)", {8}),
                        says(kUpdate, 2,
                             "SQL error: near \"hare\": syntax error. Query: delete from 'Config' "
                             "where name='o'hare' and version=0 (return code: 1)",
                             {4}),
                        says(kUpdate, 2,
                             "SQL error: near \"hare\": syntax error. Query: insert into 'Config' "
                             "(name,keybase,etc,version, save_time, type) values "
                             "('o'hare',?,?,0,<now>,1) (return code: 1)",
                             {4}),
                        says(kUpdate, 1, "Error: sqlite3_stmt *plineInfo == NULL")}));
  EXPECT_EQ(rows(), (Rows{{"1", "o'hare", "0", "1", "1000", "NULL"}}));
}

TEST_F(StorageUpdate, AnArchiveThatSqliteRefusesBecomesNull) {
  make_large(etc_dir() + "failover.ini");
  limit_values(10000);
  put({"weekly", kCurrent});
  update();
  EXPECT_EQ(statements(), (Texts{kDeleteWeekly, kInsertWeekly}));
  EXPECT_EQ(records(), (LogRecords{kTryToUpdate, says(kUpdate, 4, "sqlite3_total_changes: 2", {4})}));
  EXPECT_EQ(query("select id, typeof(keybase), typeof(etc) from Config"), (Rows{{"2", "blob", "null"}}));
}

TEST_F(StorageUpdate, ATarThatFailsLeavesTheOldRow) {
  put({"weekly", kCurrent});
  host.on_command = test::fail_commands("cd " + config_dir(), 7);
  const auto error = test::thrown_by<XExternalFailure>([this] { update(); });
  EXPECT_EQ(error.Status(), 36);
  EXPECT_EQ(error.ErrorMessage(), std::string());
  EXPECT_EQ(records(), LogRecords{kTarFailed});
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(StorageUpdate, ArchivesThatCannotBeFetchedAreAnnouncedAndTheOldRowStays) {
  put({"weekly", kCurrent});
  close_archives_before_they_are_fetched();
  const auto error = test::thrown_by<XTOOStatus>([this] { update(); });
  EXPECT_EQ(error.Status(), 54);
  EXPECT_EQ(error.ErrorMessage(), std::string("Bad file descriptor"));
  EXPECT_EQ(records(), LogRecords{kTryToUpdate});
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(StorageUpdate, WhatTheHostThrowsWhilePackingPassesThrough) {
  put({"weekly", kCurrent});
  host.on_command = [](const std::string&) -> std::optional<int> {
    throw std::runtime_error("the host has enough");
  };
  const auto error = test::thrown_by<std::runtime_error>([this] { update(); });
  EXPECT_EQ(error.what(), std::string("the host has enough"));
  EXPECT_EQ(temp_files(), Texts());
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(StorageUpdate, TheTimeIsTakenAfterTheDelete) {
  put({"weekly", kCurrent});
  std::time_t deleted = 0;
  sqlite3_update_hook(
      connection,
      [](void* time, int operation, const char*, const char*, sqlite3_int64) {
        if (operation == SQLITE_DELETE) *static_cast<std::time_t*>(time) = wait_for_the_next_second();
      },
      &deleted);
  update();
  ASSERT_NE(deleted, 0);
  EXPECT_GE(std::stoll(test::Database(database()).value("select save_time from Config")), deleted);
}

TEST_F(StorageUpdate, DigitGroupsOfTheLocaleStayOutOfTheStatements) {
  put({"weekly", kCurrent});
  const GroupedDigits grouped;
  update();
  EXPECT_EQ(statements(), (Texts{kDeleteWeekly, kInsertWeekly}));
  EXPECT_EQ(rows(), (Rows{{"2", "weekly", "17264017408", "1", "<now>", "NULL"}}));
}

TEST_F(StorageUpdate, WithoutACommitTheOldRowComesBack) {
  put({"weekly", kCurrent, 2, "1000", "2000"});
  storage->Begin();
  update();
  storage.reset();
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "2", "1000", "2000"}}));
}

// ---------------------------------------------------------------------------------------------------
// A storage that is not opened

class UnopenedRecords : public test::Gateway {
 protected:
  UnopenedRecords() {
    make_configuration();
    setenv("KELMOR_DYNAMIC_DIR", (root() + "/missing").c_str(), 1);
    storage.emplace();
    host.records.clear();
  }

  void TearDown() override {
    EXPECT_FALSE(storage->opened);
    EXPECT_EQ(host.records, LogRecords());
    EXPECT_EQ(host.commands, Texts());
    EXPECT_EQ(recorder.statements(), Texts());
    EXPECT_FALSE(test::exists(root() + "/missing"));
  }

  test::StatementRecorder recorder;
  std::optional<ConfSave::Storage> storage;
};

TEST_F(UnopenedRecords, NothingExists) { EXPECT_FALSE(storage->Exists("weekly", kCurrent)); }

TEST_F(UnopenedRecords, CreateReturnsAtOnce) { storage->Create("weekly", conf_full, kCurrent); }

TEST_F(UnopenedRecords, UpdateReturnsAtOnce) { storage->Update("weekly", conf_full, kCurrent); }

TEST_F(UnopenedRecords, DeleteReturnsAtOnce) { storage->Delete("weekly", kCurrent); }

using OpenedFlag = OpenedStorage;

TEST_F(OpenedFlag, AloneDecidesWhetherAnythingIsDone) {
  put({"weekly", kCurrent});
  storage->opened = false;
  EXPECT_FALSE(storage->Exists("weekly", kCurrent));
  storage->Create("daily", conf_full, kCurrent);
  update();
  storage->Delete("weekly", kCurrent);
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(rows(), (Rows{{"1", "weekly", "17264017408", "1", "1000", "NULL"}}));
}

}  // namespace
