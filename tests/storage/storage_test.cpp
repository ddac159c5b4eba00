#include <chrono>

#include "support/gateway.h"

namespace {

using namespace ConfSave;
using namespace test;

const LogRecords kOpened{kTryTables, kTablesMade};

using StorageOpen = Gateway;

TEST_F(StorageOpen, NewFileGetsTheTableAndIsLoggedBeforeAnythingThatCanWait) {
  Texts before_first_record = {"not recorded"};
  host.on_recorded = [&] {
    if (host.records.size() == 1) before_first_record = recorder.statements();
  };
  const Storage storage;
  EXPECT_TRUE(storage.opened);
  EXPECT_EQ(before_first_record, Texts());
  EXPECT_EQ(recorder.statements(), (Texts{kPageSize, kAutoVacuum, kCreateTable}));
  EXPECT_EQ(host.records, kOpened);
  EXPECT_EQ(query("select sql from sqlite_schema where name='Config'"),
            Rows{{"CREATE TABLE 'Config' " + kCreateTable.substr(22)}});
  EXPECT_EQ(query("pragma auto_vacuum"), Rows{{"2"}});
  EXPECT_EQ(query("pragma page_size"), Rows{{"8192"}});
  EXPECT_TRUE(lock_is_free(database()));
}

TEST_F(StorageOpen, EmptyFileGetsTheLayoutThatListsFast) {
  write_file(database(), "");
  { const Storage storage; }
  EXPECT_EQ(query("pragma auto_vacuum"), Rows{{"2"}});
}

TEST_F(StorageOpen, FileOfAnotherLayoutKeepsIt) {
  Database(database()).run(kCreateTable);
  {
    const Storage storage;
    EXPECT_EQ(recorder.statements(), Texts());
  }
  EXPECT_EQ(Database(database()).value("pragma auto_vacuum"), "0");
}

TEST_F(StorageOpen, ExistingTableIsTheNormalCaseAndNothingIsWritten) {
  { const Storage storage; }
  insert_row(database(), {"weekly"});
  const std::string before = read_file(database());
  const auto time = std::filesystem::last_write_time(database());
  forget();
  const Storage storage;
  EXPECT_TRUE(storage.opened);
  EXPECT_EQ(recorder.statements(), Texts());
  EXPECT_EQ(host.records, kOpened);
  EXPECT_EQ(read_file(database()), before);
  EXPECT_EQ(std::filesystem::last_write_time(database()), time);
  EXPECT_EQ(names_in(state_dir()), Texts{"storage.db"});
}

TEST_F(StorageOpen, ReadOnlyFileCanBeListed) {
  { const Storage storage; }
  insert_row(database(), {"weekly"});
  ASSERT_EQ(shell("mount --bind " + state_dir() + " " + state_dir() + " && mount -o remount,ro,bind " +
                  state_dir()),
            0);
  host.records.clear();
  {
    Storage storage;
    EXPECT_TRUE(storage.opened);
    EXPECT_EQ(storage.List(0, "", true).size(), 1U);
  }
  EXPECT_EQ(host.records, kOpened);
  EXPECT_EQ(shell("umount " + state_dir()), 0);
}

TEST_F(StorageOpen, TableOfAnotherShapeIsAccepted) {
  Database(database()).run("create table Config (a)");
  Storage storage;
  EXPECT_TRUE(storage.opened);
  EXPECT_EQ(host.records, kOpened);
  host.records.clear();
  host.log_level = 2;
  storage.Delete("x", 1);
  EXPECT_EQ(host.records,
            (LogRecords{says(kDelete, 2, refusal("no such column: name", delete_of("x", "1"), 1), {4})}));
}

TEST_F(StorageOpen, MissingDirectoryLeavesItClosed) {
  std::filesystem::remove(state_dir());
  EXPECT_FALSE(Storage().opened);
  EXPECT_EQ(host.records, LogRecords{kCannotOpen});
}

TEST_F(StorageOpen, ExceptionOfTheLogClosesTheConnection) {
  std::filesystem::create_directory(database());
  host.entry_points.begin = [](int, const ClUnilogFname&, const char*, int) {
    throw std::runtime_error("log");
  };
  const sqlite3_int64 before = sqlite3_memory_used();
  EXPECT_THROW(Storage(), std::runtime_error);
  EXPECT_EQ(sqlite3_memory_used(), before);
}

TEST_F(StorageOpen, FileThatIsNotADatabaseIsReportedAndOpened) {
  write_file(database(), std::string(2000, 'x'));
  const Storage storage;
  EXPECT_TRUE(storage.opened);
  EXPECT_EQ(
      host.records,
      (LogRecords{kTryTables, says(kStorage, 2, refusal("file is not a database", kCreateTable, 26), {4}),
                  kTablesMade}));
}

TEST_F(StorageOpen, BusyTimeoutIsTheLongestPossible) {
  const Storage storage;
  sqlite3_set_authorizer(recorder.connection(), nullptr, nullptr);  // It refuses the pragma.
  std::string timeout;
  const auto take = [](void* context, int, char** values, char**) {
    *static_cast<std::string*>(context) = values[0];
    return 0;
  };
  sqlite3_exec(recorder.connection(), "pragma busy_timeout", take, &timeout, nullptr);
  EXPECT_EQ(timeout, "2147483647");
}

const Function kBegin{"void ConfSave::Storage::Begin()", "Begin", "source/storage"};
const Function kCommit{"void ConfSave::Storage::Commit()", "Commit", "source/storage"};

using StorageTransaction = Gateway;

TEST_F(StorageTransaction, BeginTakesTheExclusiveLockAndCommitReleasesIt) {
  Storage storage;
  forget();
  storage.Begin();
  EXPECT_FALSE(lock_is_free(database()));
  storage.Commit();
  EXPECT_TRUE(lock_is_free(database()));
  EXPECT_EQ(recorder.statements(), (Texts{"begin exclusive", "commit"}));
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(StorageTransaction, BeginTwiceAndCommitWithoutBeginAreReported) {
  Storage storage;
  storage.Begin();
  forget();
  storage.Begin();
  storage.Commit();
  storage.Commit();
  EXPECT_EQ(host.records,
            (LogRecords{
                says(kBegin, 2,
                     refusal("cannot start a transaction within a transaction", "begin exclusive", 1), {4}),
                says(kCommit, 2, refusal("cannot commit - no transaction is active", "commit", 1), {4})}));
}

TEST_F(StorageTransaction, TransactionWithoutACommitIsUndone) {
  { const Storage storage; }
  insert_row(database(), {"weekly"});
  {
    Storage storage;
    storage.Begin();
    storage.Delete("weekly", 0);
    EXPECT_FALSE(storage.Exists("weekly", 0));
  }
  EXPECT_EQ(Database(database()).value("select count(*) from Config"), "1");
  EXPECT_TRUE(lock_is_free(database()));
}

TEST_F(StorageTransaction, BeginWaitsForAnotherProcess) {
  { const Storage storage; }
  forget();
  const LockHolder holder(database(), 300);
  const auto start = std::chrono::steady_clock::now();
  Storage storage;
  storage.Begin();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  EXPECT_EQ(host.records, kOpened);
}

TEST_F(StorageTransaction, UnopenedStorageOnlyReports) {
  std::filesystem::remove(state_dir());
  Storage storage;
  forget();
  storage.Begin();
  storage.Commit();
  EXPECT_EQ(host.records, (LogRecords{says(kBegin, 2, refusal("", "begin exclusive", 21), {4}),
                                      says(kCommit, 2, refusal("", "commit", 21), {4})}));
}

}  // namespace
