#include <unistd.h>
#include <regex>

#include "storage/rows.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

const std::string kDeleteWeekly = delete_of("weekly");
const std::string kInsertWeekly = insert_of("weekly");

/// Create or Update, which differ in three things: Update deletes the row first, it does not report what
/// sqlite3_finalize returns, and it does not throw when SQLite refuses the insert.
struct Write {
  std::string name;
  void (Storage::*call)(const std::string&, conftype, int64);
  Function function;
  std::string announcement;

  bool creates() const { return name == "Create"; }
};
void PrintTo(const Write& write, std::ostream* out) { *out << write.name; }

const Write kWrites[] = {{"Create", &Storage::Create, kCreate, "Try to save configuration '"},
                         {"Update", &Storage::Update, kUpdate, "Try to update configuration '"}};

struct WriteTest : StorageOfConfiguration {
  explicit WriteTest(const Write& operation) : operation_(operation) {}

  void write(conftype type = conf_full, const std::string& name = "weekly", int64 version = kCurrent) {
    ((*storage).*operation_.call)(name, type, version);
  }

  bool creates() const { return operation_.creates(); }

  LogRecord record(int level, const std::string& text, const Widths& widths = {}) const {
    return says(operation_.function, level, text, widths);
  }
  LogRecord announced(const std::string& name = "weekly", const std::string& version = kCurrentText) const {
    return record(2, operation_.announcement + name + "' (version " + version + ")", {8});
  }
  LogRecord changes(int number) const {
    return record(4, "sqlite3_total_changes: " + std::to_string(number), {4});
  }
  LogRecord no_statement() const { return record(1, "Error: sqlite3_stmt *plineInfo == NULL"); }
  LogRecord refused(const std::string& error, const std::string& statement, int code) const {
    return record(2, refusal(error, statement, code), {4});
  }
  /// What Create logs about sqlite3_finalize and Update does not.
  LogRecords finalized(int code) const {
    if (!creates()) return {};
    return {record(1, "sqlite3_finalize() return code " + std::to_string(code), {4})};
  }

  /// The statements up to `insert`.
  Texts up_to(const std::string& insert) const {
    return creates() ? Texts{insert} : Texts{kDeleteWeekly, insert};
  }

  /// Writes over the old row, which must fail and change nothing.
  void expect_failure(const std::string& expected, const Texts& run, const LogRecords& logged) {
    put({"weekly", kCurrent});
    EXPECT_EQ(thrown([this] { write(); }), expected);
    expect_effects(run, {}, logged);
    EXPECT_EQ(temp_files(), Texts());
    EXPECT_EQ(rows(), old_row);
  }

  /// Makes the archive with this file larger than 30000 bytes.
  static void make_large(const std::string& file) {
    EXPECT_EQ(shell("head -c 30000 /dev/urandom > " + file), 0);
  }

 private:
  const Write& operation_;
};

struct StorageWrite : WriteTest, testing::WithParamInterface<Write> {
  StorageWrite() : WriteTest(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Each, StorageWrite, testing::ValuesIn(kWrites), by_name);

TEST_P(StorageWrite, NewConfigurationIsPackedAndStored) {
  const GroupedDigits grouped;
  host.on_recorded = [this] { EXPECT_EQ(sqlite3_next_stmt(connection, nullptr), nullptr); };
  expect_logged({announced(), changes(1)}, [this] {
    Database(database()).run("delete from Config");
    forget();
    write();
    EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
    EXPECT_EQ(statements(), up_to(kInsertWeekly));
    EXPECT_EQ(query("select name, version, type, save_time, load_time from Config"),
              (Rows{{"weekly", "17264017408", "1", "<now>", "NULL"}}));
  });
}

TEST_P(StorageWrite, TypeIsStoredAndDecidesWhatIsPacked) {
  for (const auto& [type, run, etc] : {std::tuple(-1, Texts{kPackEtc, kPackPart}, "blob"),
                                       {2, Texts{kPackEtc, kPackPart}, "blob"},
                                       {3, Texts{kPackCorlu}, "null"}}) {
    Database(database()).run("delete from Config");
    forget();
    write(static_cast<conftype>(type));
    EXPECT_EQ(commands(), run) << type;
    EXPECT_EQ(statements(), up_to(insert_of("weekly", kCurrentText, std::to_string(type))));
    EXPECT_EQ(query("select type, typeof(type), typeof(keybase), typeof(etc) from Config"),
              (Rows{{std::to_string(type), "integer", "blob", etc}}));
  }
}

TEST_P(StorageWrite, BlobsAreWhatTarWrote) {
  make_large(config_dir() + "user/gateway.conf");
  std::vector<Bytes> written;
  host.on_command = [&](const std::string& command) -> std::optional<int> {
    const int result = shell(command);
    std::smatch archive;
    std::regex_search(command, archive, std::regex(temp_dir() + "/[A-Za-z0-9]{6}"));
    const std::string bytes = read_file(archive.str());
    written.emplace_back(bytes.begin(), bytes.end());
    return result;
  };
  write();
  ASSERT_EQ(written.size(), 2U);
  EXPECT_EQ(members(written[0]), (Texts{"failover.ini", "failover.ini.crg", "failoverd-config.crg"}));
  EXPECT_GT(written[1].size(), 30000U);
  EXPECT_EQ(query("select etc = " + hex(written[0]) + ", keybase = " + hex(written[1]) + " from Config"),
            (Rows{{"1", "1"}}));
}

TEST_P(StorageWrite, EmptyArchivesAreStoredAsNull) {
  host.on_command = fail_commands("cd ", 0);  // Tar does not run and the files stay empty.
  write();
  EXPECT_EQ(query("select name, typeof(keybase), typeof(etc) from Config"),
            (Rows{{"weekly", "null", "null"}}));
  EXPECT_EQ(records(), (LogRecords{announced(), changes(1)}));
}

TEST_P(StorageWrite, ArchivesExistUntilTheRowIsWritten) {
  std::size_t files = 0;
  sqlite3_update_hook(
      connection,
      [](void* count, int, const char*, const char*, sqlite3_int64) {
        *static_cast<std::size_t*>(count) = open_below(std::getenv("KELMOR_TEMP_DIR")).size();
      },
      &files);
  write();
  EXPECT_EQ(files, 2U);
  EXPECT_EQ(temp_files(), Texts());
}

TEST_P(StorageWrite, TimeIsTakenAfterThePacking) {
  std::time_t packed = 0;
  host.on_command = [&](const std::string& command) -> std::optional<int> {
    const int result = shell(command);
    packed = next_second();
    return result;
  };
  write(conf_corlu);
  EXPECT_GE(std::stoll(Database(database()).value("select save_time from Config")), packed);
}

TEST_P(StorageWrite, ExceptionOfTheHostPropagates) {
  host.on_command = [](const std::string&) -> std::optional<int> { throw std::runtime_error("host"); };
  expect_failure("std::runtime_error: host", {kPackEtc}, {});
}

TEST_P(StorageWrite, ArchivesThatCannotBeFetchedAreAnnouncedAndNotStored) {
  // The first record is written between the packing and the fetching.
  host.on_recorded = [this] {
    for (const auto& [file, descriptor] : open_below(temp_dir())) close(descriptor);
  };
  expect_failure("XTOOStatus 54: Bad file descriptor", {kPackEtc, kPackFull}, {announced()});
}

// Refused statements

TEST_P(StorageWrite, NameWithAQuoteStoresNothing) {
  put({"o''hare", 0});
  write(conf_full, "o'hare", 0);
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(statements(), Texts());
  LogRecords expected{announced("o'hare", "0")};
  if (!creates()) {
    expected.push_back(refused("near \"hare\": syntax error", delete_of("o'hare", "0"), 1));
  }
  expected.push_back(refused("near \"hare\": syntax error", insert_of("o'hare", "0"), 1));
  expected.push_back(no_statement());
  EXPECT_EQ(records(), expected);
  EXPECT_EQ(rows(), (Rows{{"1", "o'hare", "0", "1", "1000", "NULL"}}));
}

/// A schema in which SQLite refuses the insert, for Update perhaps the delete, too.
struct Refusal {
  std::string name;
  std::string schema;
  std::string delete_error;
  std::string error;
  int code;
  bool prepared;
};
void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

constexpr const char* kTakenError = "UNIQUE constraint failed: Config.name, Config.version";

const Refusal kRefusals[] = {
    {"AnyConstraint", "create unique index one_of_each on Config (type)", "",
     "UNIQUE constraint failed: Config.type", 19, true},
    {"TakenName", "update Config set name='weekly', version=17264017408; " + kKeepTrigger, "kept",
     kTakenError, 19, true},
    {"MissingTable", "alter table Config rename to Kept", "no such table: Config", "no such table: Config",
     1, false},
    {"OtherTable", "alter table Config rename to Kept; create table Config (name text, version integer)",
     "", "table Config has no column named keybase", 1, false}};

struct StorageWriteRefused : WriteTest, testing::WithParamInterface<std::tuple<Write, Refusal>> {
  StorageWriteRefused() : WriteTest(std::get<0>(GetParam())) {}
};

TEST_P(StorageWriteRefused, IsReportedAndOnlyAConstraintThrows) {
  const Refusal& refusal = std::get<1>(GetParam());
  put({"daily", kCurrent});
  change_schema(refusal.schema);
  const bool throws = creates() && refusal.code == 19;
  LogRecords expected{announced()};
  Texts run;
  if (!creates() && !refusal.delete_error.empty()) {
    expected.push_back(refused(refusal.delete_error, kDeleteWeekly, refusal.code));
  }
  if (!creates() && (refusal.prepared || refusal.delete_error.empty())) run.push_back(kDeleteWeekly);
  expected.push_back(refused(refusal.error, kInsertWeekly, refusal.code));
  if (refusal.prepared) {
    run.push_back(kInsertWeekly);
    expected = expected + finalized(refusal.code);
    if (!throws) expected.push_back(changes(0));
  } else {
    expected.push_back(no_statement());
  }
  expect_logged(expected, [&] {
    forget();
    EXPECT_EQ(thrown([this] { write(); }),
              throws ? "ConfSave::XConstraint 0: Configuration 'weekly' (version 4.5.4) already exists"
                     : "nothing");
    EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
    EXPECT_EQ(statements(), run);
  });
  EXPECT_EQ(
      query("select count(*), max(save_time) from " + std::string(refusal.prepared ? "Config" : "Kept")),
      (Rows{{"1", "1000"}}));
}

INSTANTIATE_TEST_SUITE_P(Each, StorageWriteRefused,
                         testing::Combine(testing::ValuesIn(kWrites), testing::ValuesIn(kRefusals)),
                         [](const auto& test) {
                           return std::get<0>(test.param).name + std::get<1>(test.param).name;
                         });

TEST_P(StorageWrite, ArchiveThatSqliteRefusesBecomesNull) {
  sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, 10000);
  int total = 0;
  for (const auto& [large, stored] : {std::pair{config_dir() + "user/gateway.conf", Texts{"null", "blob"}},
                                      std::pair{etc_dir() + "failover.ini", Texts{"blob", "null"}}}) {
    Database(database()).run("delete from Config");
    make_configuration();
    make_large(large);
    forget();
    write();
    expect_effects({kPackEtc, kPackFull}, up_to(kInsertWeekly), {announced(), changes(++total)});
    EXPECT_EQ(query("select typeof(keybase), typeof(etc) from Config"), Rows{stored});
  }
}

TEST_P(StorageWrite, OversizedRowStoresNothing) {
  make_large(config_dir() + "user/gateway.conf");
  make_large(etc_dir() + "failover.ini");
  sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, 40000);
  write();
  EXPECT_EQ(statements(), up_to(kInsertWeekly));
  EXPECT_EQ(records(), (LogRecords{announced(), refused("string or blob too big", kInsertWeekly, 18)} +
                        finalized(18) + LogRecords{changes(0)}));
  EXPECT_EQ(rows(), Rows());
}

}  // namespace
