#include "confsave.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "support/gateway.h"

namespace {

using ConfSave::Storage;
using test::LogRecord;
using test::LogRecords;
using Texts = std::vector<std::string>;

const std::string kCreateTable =
    "create table 'Config' (id integer primary key autoincrement, name varchar(80) not null, version "
    "integer "
    "not null, keybase blob, etc blob, type integer, save_time timestamp, load_time timestamp, unique "
    "(name, "
    "version) )";

LogRecord storage_says(int level, const std::string& text, const std::vector<unsigned>& widths = {}) {
  return {level, "ConfSave::Storage::Storage()", "Storage", "source/storage", text, widths};
}
const LogRecord kTry = storage_says(4, "Try create storage tables");
const LogRecord kDone = storage_says(4, "storage tables successfully created");

class StorageOpen : public test::Gateway {
 protected:
  test::StatementRecorder recorder;
};

TEST_F(StorageOpen, NewFileGetsTheTable) {
  const Storage storage;
  EXPECT_TRUE(storage.opened);
  EXPECT_EQ(recorder.statements(), (Texts{test::kChooseLayout, kCreateTable}));
  EXPECT_EQ(host.records, (LogRecords{kTry, kDone}));
  EXPECT_EQ(test::Database(database()).value("select sql from sqlite_schema where name='Config'"),
            "CREATE TABLE 'Config' " + kCreateTable.substr(22));
  EXPECT_TRUE(test::lock_is_free(database()));
}

TEST_F(StorageOpen, RecordComesBeforeAnythingThatCanWait) {
  Texts before_first_record = {"not recorded"};
  host.on_recorded = [&] {
    if (host.records.size() == 1) before_first_record = recorder.statements();
  };
  const Storage storage;
  EXPECT_EQ(host.records, (LogRecords{kTry, kDone}));
  EXPECT_EQ(before_first_record, Texts());
}

TEST_F(StorageOpen, NewFileHasTheLayoutThatListsFast) {
  { const Storage storage; }
  EXPECT_EQ(test::Database(database()).value("pragma auto_vacuum"), "2");
}

TEST_F(StorageOpen, EmptyFileIsANewOne) {
  test::write_file(database(), "");
  { const Storage storage; }
  EXPECT_EQ(test::Database(database()).value("pragma auto_vacuum"), "2");
}

TEST_F(StorageOpen, FileOfAnotherLayoutKeepsIt) {
  test::Database(database()).run(kCreateTable);
  {
    const Storage storage;
    EXPECT_EQ(recorder.statements(), Texts());
  }
  EXPECT_EQ(test::Database(database()).value("pragma auto_vacuum"), "0");
}

TEST_F(StorageOpen, SecondOpeningWritesNothing) {
  { const Storage storage; }
  test::insert_row(database(), {"weekly"});
  const std::string before = test::read_file(database());
  const auto time = std::filesystem::last_write_time(database());
  recorder.clear();
  const Storage storage;
  EXPECT_TRUE(storage.opened);
  EXPECT_EQ(recorder.statements(), Texts());
  EXPECT_EQ(test::read_file(database()), before);
  EXPECT_EQ(std::filesystem::last_write_time(database()), time);
  EXPECT_EQ(test::names_in(state_dir()), Texts{"storage.db"});
}

TEST_F(StorageOpen, FileThatCannotBeWrittenToIsListed) {
  { const Storage storage; }
  test::insert_row(database(), {"weekly"});
  ASSERT_EQ(test::shell("mount --bind " + state_dir() + " " + state_dir() +
                        " && mount -o remount,ro,bind " + state_dir()),
            0);
  host.records.clear();
  {
    Storage storage;
    EXPECT_TRUE(storage.opened);
    EXPECT_EQ(storage.List(0, "", true).size(), 1U);
  }
  EXPECT_EQ(host.records, (LogRecords{kTry, kDone}));
  EXPECT_EQ(test::shell("umount " + state_dir()), 0);
}

TEST_F(StorageOpen, ExistingTableIsTheNormalCase) {
  { const Storage first; }
  host.records.clear();
  const Storage storage;
  EXPECT_TRUE(storage.opened);
  EXPECT_EQ(host.records, (LogRecords{kTry, kDone}));
}

TEST_F(StorageOpen, TableOfAnotherShapeIsTakenForOurs) {
  test::Database(database()).run("create table Config (a)");
  Storage storage;
  EXPECT_TRUE(storage.opened);
  EXPECT_EQ(host.records, (LogRecords{kTry, kDone}));
  host.records.clear();
  storage.Delete("x", 1);
  EXPECT_EQ(host.records_up_to(2),
            (LogRecords{{2,
                         "void ConfSave::Storage::Delete(const string&, int64)",
                         "Delete",
                         "source/storage",
                         "SQL error: no such column: name. Query: delete from 'Config' where name='x' and "
                         "version=1 (return code: 1)",
                         {4}}}));
}

TEST_F(StorageOpen, MissingDirectoryLeavesItClosed) {
  std::filesystem::remove(state_dir());
  const Storage storage;
  EXPECT_FALSE(storage.opened);
  EXPECT_EQ(host.records,
            (LogRecords{storage_says(
                1, "Can't open database: unable to open database file (return code: 14)\n", {4})}));
}

TEST_F(StorageOpen, DirectoryInPlaceOfTheFileLeavesItClosed) {
  std::filesystem::create_directory(database());
  host.log_level = 0;
  EXPECT_FALSE(Storage().opened);
  EXPECT_EQ(host.records, LogRecords());
  host.log_level = 1;
  EXPECT_FALSE(Storage().opened);
  EXPECT_EQ(host.records,
            (LogRecords{storage_says(
                1, "Can't open database: unable to open database file (return code: 14)\n", {4})}));
}

TEST_F(StorageOpen, LogThatThrowsLeavesNoConnectionBehind) {
  std::filesystem::create_directory(database());
  host.entry_points.begin = [](int, const ClUnilogFname&, const char*, int) {
    throw std::runtime_error("log");
  };
  const sqlite3_int64 before = sqlite3_memory_used();
  EXPECT_THROW(Storage(), std::runtime_error);
  EXPECT_EQ(sqlite3_memory_used(), before);
}

TEST_F(StorageOpen, FileThatIsNoDatabaseIsReportedAndOpened) {
  test::write_file(database(), std::string(2000, 'x'));
  const Storage storage;
  EXPECT_TRUE(storage.opened);
  EXPECT_EQ(
      host.records,
      (LogRecords{
          kTry,
          storage_says(
              2, "SQL error: file is not a database. Query: " + kCreateTable + " (return code: 26)", {4}),
          kDone}));
}

TEST_F(StorageOpen, BusyTimeOutIsAsLongAsCanBe) {
  const Storage storage;
  std::string timeout;
  sqlite3_set_authorizer(recorder.connection(), nullptr, nullptr);  // It refuses the question.
  sqlite3_exec(
      recorder.connection(), "pragma busy_timeout",
      [](void* context, int, char** values, char**) {
        *static_cast<std::string*>(context) = values[0];
        return 0;
      },
      &timeout, nullptr);
  EXPECT_EQ(timeout, "2147483647");
}

class StorageTransaction : public StorageOpen {
 protected:
  void forget() {
    host.records.clear();
    recorder.clear();
  }
};

TEST_F(StorageTransaction, BeginTakesTheExclusiveLockAndCommitGivesItBack) {
  Storage storage;
  forget();
  storage.Begin();
  EXPECT_FALSE(test::lock_is_free(database()));
  storage.Commit();
  EXPECT_TRUE(test::lock_is_free(database()));
  EXPECT_EQ(recorder.statements(), (Texts{"begin exclusive", "commit"}));
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(StorageTransaction, BeginTwiceIsReported) {
  Storage storage;
  storage.Begin();
  forget();
  storage.Begin();
  EXPECT_EQ(
      host.records,
      (LogRecords{{2,
                   "void ConfSave::Storage::Begin()",
                   "Begin",
                   "source/storage",
                   "SQL error: cannot start a transaction within a transaction. Query: begin exclusive "
                   "(return code: 1)",
                   {4}}}));
}

TEST_F(StorageTransaction, CommitWithoutBeginIsReported) {
  Storage storage;
  forget();
  storage.Commit();
  EXPECT_EQ(host.records, (LogRecords{{2,
                                       "void ConfSave::Storage::Commit()",
                                       "Commit",
                                       "source/storage",
                                       "SQL error: cannot commit - no transaction is active. Query: commit "
                                       "(return code: 1)",
                                       {4}}}));
}

TEST_F(StorageTransaction, WhatIsNotCommittedIsUndone) {
  { const Storage storage; }
  test::insert_row(database(), {"weekly"});
  {
    Storage storage;
    storage.Begin();
    storage.Delete("weekly", 0);
    EXPECT_FALSE(storage.Exists("weekly", 0));
  }
  EXPECT_EQ(test::Database(database()).value("select count(*) from Config"), "1");
  EXPECT_TRUE(test::lock_is_free(database()));
}

TEST_F(StorageTransaction, AnotherProcessIsWaitedFor) {
  { const Storage storage; }
  forget();
  const test::LockHolder holder(database(), 300);
  const auto start = std::chrono::steady_clock::now();
  Storage storage;
  storage.Begin();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  EXPECT_EQ(host.records, (LogRecords{kTry, kDone}));
}

TEST_F(StorageTransaction, UnopenedStorageReportsAndGoesOn) {
  std::filesystem::remove(state_dir());
  Storage storage;
  forget();
  storage.Begin();
  storage.Commit();
  EXPECT_EQ(host.records, (LogRecords{{2,
                                       "void ConfSave::Storage::Begin()",
                                       "Begin",
                                       "source/storage",
                                       "SQL error: . Query: begin exclusive (return code: 21)",
                                       {4}},
                                      {2,
                                       "void ConfSave::Storage::Commit()",
                                       "Commit",
                                       "source/storage",
                                       "SQL error: . Query: commit (return code: 21)",
                                       {4}}}));
}

}  // namespace
