#include <gtest/gtest.h>
#include <sys/stat.h>

#include "confsave/snapshots.h"
#include "snapshots/killing.h"
#include "snapshots/lock.h"
#include "snapshots/under_lock.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
namespace snapshots = ConfSave::snapshots;
using std::chrono::milliseconds;

RemoveOptions impatient() {
  RemoveOptions options;
  options.wait = milliseconds(100);
  return options;
}

class RemoveTest : public Gateway {
 protected:
  RemoveTest() {
    make_storage(kChooseLayout);
    put({"weekly", kCurrent});
  }
  ~RemoveTest() override { expect_nothing_held(); }

  void make_storage(const std::string& layout) {
    if (exists(database())) shell("rm " + database());
    const Database storage(database());
    storage.run(layout);
    storage.run(kCreateTable);
  }

  Texts names() {
    Texts result;
    for (const Texts& row : query("select name || '@' || version from Config order by id")) {
      result.push_back(row[0]);
    }
    return result;
  }

  long size() {
    struct stat status = {};
    EXPECT_EQ(stat(database().c_str(), &status), 0);
    return status.st_size;
  }

  std::string notes_file() { return state_dir() + "/notes.db"; }
};

/// prune() and the others that delete by a rule have decided about a row, and not about a name.
TEST_F(RemoveTest, ARowThatWasOverwrittenSinceStays) {
  const auto old = find({"weekly"});
  ASSERT_TRUE(old);
  Database(database()).run("update Config set id = 99, save_time = 2000 where name = 'weekly'");
  EXPECT_EQ(remove_under_lock(*old, Deadline(milliseconds(100))).code, Code::not_found);
  EXPECT_EQ(snapshots::remove(*old).text,
            "the snapshot 'weekly' is gone; another one of its name is stored now, and stays");
  EXPECT_EQ(names(), Texts{"weekly@" + kCurrentText});
  EXPECT_EQ(remove_under_lock(*find({"weekly"}), Deadline(milliseconds(100))).code, Code::ok);
  EXPECT_EQ(names(), Texts());
}

/// Another program can store rows that are listed under one name and version.
TEST_F(RemoveTest, OneOfSeveralIsFoundByItsId) {
  const Database storage(database());
  for (const char* version : {"'a'", "'b'", "'c'"}) {
    storage.run("insert into Config (name, version, keybase, etc, type, save_time) values ('dup', " +
                std::string(version) + ", x'', x'', 1, 1000)");
  }
  Query query;
  query.pattern = "dup";
  const auto rows = list(query);
  ASSERT_TRUE(rows);
  ASSERT_EQ(rows->size(), 3U);
  EXPECT_EQ(snapshots::remove((*rows)[0]).code, Code::ok);
  EXPECT_EQ(snapshots::remove((*rows)[0]).code, Code::not_found);
  EXPECT_EQ(snapshots::remove((*rows)[1]).code, Code::ok);
  EXPECT_EQ(names(), (Texts{"weekly@" + kCurrentText, "dup@c"}));
}

TEST_F(RemoveTest, DeletesExactlyOneRow) {
  put({"week*", kCurrent});
  put({"weekly", 0});
  put({"Weekly", kCurrent});
  put({"corlu-config", 0});
  EXPECT_EQ(snapshots::remove({"week*"}).code, Code::ok);
  EXPECT_EQ(names(),
            (Texts{"weekly@" + kCurrentText, "weekly@0", "Weekly@" + kCurrentText, "corlu-config@0"}));
  EXPECT_EQ(snapshots::remove({"weekly", 0}).code, Code::ok);
  EXPECT_EQ(snapshots::remove({"corlu-config", 0}).code, Code::ok);
  EXPECT_EQ(names(), (Texts{"weekly@" + kCurrentText, "Weekly@" + kCurrentText}));
}

TEST_F(RemoveTest, WhatIsNotThereIsNotFound) {
  for (const Id& id :
       {Id{"missing"}, Id{"weekly", 5}, Id{"week*"}, Id{std::string("weekly\0", 7)}, Id{""}}) {
    EXPECT_EQ(snapshots::remove(id).code, Code::not_found) << id.name;
  }
  EXPECT_EQ(names(), Texts{"weekly@" + kCurrentText});
  shell("rm " + database());
  EXPECT_EQ(snapshots::remove({"weekly"}).code, Code::not_found);
  EXPECT_FALSE(exists(database()));
}

TEST_F(RemoveTest, APinProtects) {
  EXPECT_EQ(pin({"weekly"}, true).code, Code::ok);
  const Error error = snapshots::remove({"weekly"});
  EXPECT_EQ(error.code, Code::pinned);
  EXPECT_EQ(error.text, "the snapshot 'weekly' is pinned");
  EXPECT_EQ(names(), Texts{"weekly@" + kCurrentText});
  RemoveOptions options;
  options.even_pinned = true;
  EXPECT_EQ(snapshots::remove({"weekly"}, options).code, Code::ok);
  EXPECT_EQ(names(), Texts());
}

TEST_F(RemoveTest, TheNoteIsDeletedToo) {
  put({"daily", kCurrent});
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  EXPECT_EQ(note({"daily"}, "y").code, Code::ok);
  EXPECT_EQ(snapshots::remove({"weekly"}).code, Code::ok);
  EXPECT_EQ(test::Database(notes_file()).query("select comment from note"), Rows{{"y"}});
  // A note that stays belongs to no row.
  const LockHolder holder(notes_file(), 60000);
  RemoveOptions options = impatient();
  options.even_pinned = true;
  EXPECT_EQ(snapshots::remove({"daily"}, options).code, Code::ok);
  EXPECT_EQ(names(), Texts());
}

/// "storage.db" and its directory are synced last.
TEST_F(RemoveTest, ACommitThatFailsAfterItTookEffectSaysSo) {
  int gone = 0;
  bool has_failed = true;
  for (int sync = 1; has_failed; ++sync) {
    ASSERT_LT(sync, 20);
    if (names().empty()) put({"weekly", kCurrent});
    Error error;
    {
      const FailingSync failing(sync);
      error = snapshots::remove({"weekly"});
      has_failed = FailingSync::has_failed();
    }
    if (error.code == Code::ok) continue;
    EXPECT_EQ(error.aftermath, names().empty() ? Aftermath::perhaps_done : Aftermath::untouched) << sync;
    if (!names().empty()) continue;
    ++gone;
    EXPECT_EQ(error.path, database());
    EXPECT_EQ(error.text, "what was to be deleted may be gone all the same: disk I/O error");
  }
  EXPECT_EQ(gone, 1);
}

TEST_F(RemoveTest, NotesThatCannotBeReadMayHoldAPin) {
  write_file(notes_file(), std::string(5000, 'x'));
  EXPECT_EQ(snapshots::remove({"weekly"}).code, Code::no_storage);
  shell("rm " + notes_file() + " && ln -s missing/notes.db " + notes_file());
  const Error error = snapshots::remove({"weekly"});
  EXPECT_EQ(error.code, Code::no_storage);
  EXPECT_EQ(error.text, "this link leads to no file: its file system may not be mounted");
  EXPECT_EQ(names(), Texts{"weekly@" + kCurrentText});
  RemoveOptions options;
  options.even_pinned = true;
  EXPECT_EQ(snapshots::remove({"weekly"}, options).code, Code::ok);
  EXPECT_EQ(names(), Texts());
}

TEST_F(RemoveTest, ThePagesGoBackToTheFileSystem) {
  for (const std::string name : {"first", "second", "last"}) {
    put({name, kCurrent, 1, "1000", "NULL", "randomblob(5 << 20)"});
  }
  const std::string last = query("select hex(keybase) from Config where name = 'last'")[0][0];
  EXPECT_EQ(snapshots::remove({"first"}).code, Code::ok);
  EXPECT_LT(size(), (10 << 20) + (1 << 17));
  EXPECT_EQ(query("pragma freelist_count"), Rows{{"0"}});
  EXPECT_EQ(snapshots::remove({"second"}).code, Code::ok);
  EXPECT_LT(size(), (5 << 20) + (1 << 17));
  EXPECT_TRUE(query("select hex(keybase) from Config where name = 'last'")[0][0] == last);
}

TEST_F(RemoveTest, WhatEarlierDeletionsLeftGoesBackToo) {
  put({"large", kCurrent, 1, "1000", "NULL", "zeroblob(9 << 20)"});
  Database(database()).run("delete from Config where name = 'large'");
  EXPECT_GT(size(), 9 << 20);
  EXPECT_EQ(snapshots::remove({"weekly"}).code, Code::ok);
  EXPECT_LT(size(), 1 << 17);
}

TEST_F(RemoveTest, AFileOfAnOldProgramKeepsItsSizeAndUsesThePagesAgain) {
  make_storage("pragma auto_vacuum=none");
  put({"first", kCurrent, 1, "1000", "NULL", "randomblob(1 << 20)"});
  put({"weekly", kCurrent});
  const long before = size();
  EXPECT_EQ(snapshots::remove({"first"}).code, Code::ok);
  EXPECT_EQ(names(), Texts{"weekly@" + kCurrentText});
  put({"second", kCurrent, 1, "1000", "NULL", "randomblob(1 << 20)"});
  EXPECT_EQ(size(), before);
}

TEST_F(RemoveTest, ALockEndsTheWait) {
  {
    const LockHolder holder(database(), 60000);
    EXPECT_EQ(snapshots::remove({"weekly"}, impatient()).code, Code::busy);
  }
  {
    const auto lock = Lock::take("saving", Deadline(milliseconds(0)));
    ASSERT_TRUE(lock);
    const Error error = snapshots::remove({"weekly"}, impatient());
    EXPECT_EQ(error.code, Code::busy);
    EXPECT_EQ(error.path, state_dir() + "/confsave.lock");
  }
  EXPECT_EQ(names(), Texts{"weekly@" + kCurrentText});
  EXPECT_EQ(snapshots::remove({"weekly"}, impatient()).code, Code::ok);
}

TEST_F(RemoveTest, WhatIsNoStorageIsRefused) {
  const Database storage(database());
  storage.run("alter table Config rename to Stored");
  storage.run("create view Config as select * from Stored");
  EXPECT_EQ(snapshots::remove({"weekly"}).code, Code::no_storage);
  EXPECT_EQ(query("select count(*) from Stored"), Rows{{"1"}});
}

TEST_F(RemoveTest, ValuesOfOtherTypesAreWhatTheyAreListedAs) {
  put({"daily", kCurrent});
  put({"yearly", kCurrent});
  const Database storage(database());
  storage.run("update Config set name = cast(name as blob) where name = 'weekly'");
  storage.run("update Config set version = cast('17264017408x' as text) where name = 'daily'");
  for (const char* name : {"weekly", "daily"}) {
    Query query;
    query.pattern = name;
    EXPECT_TRUE(find(query)) << name;
    EXPECT_EQ(snapshots::remove({name}).code, Code::ok) << name;
  }
  EXPECT_EQ(names(), Texts{"yearly@" + kCurrentText});
}

TEST_F(RemoveTest, SeveralRowsOfOneIdAreNotDeleted) {
  const Database storage(database());
  storage.run("drop table Config");
  storage.run("create table Config (id, name, version, keybase, etc, type, save_time, load_time)");
  put({"weekly", kCurrent});
  storage.run("update Config set id = 1");
  storage.run("insert into Config select * from Config");
  EXPECT_EQ(snapshots::remove({"weekly"}).code, Code::no_storage);
  EXPECT_EQ(query("select count(*) from Config"), Rows{{"2"}});
}

TEST_F(RemoveTest, TriggersOfTheFileDoNotRun) {
  keep_all_rows();
  EXPECT_EQ(snapshots::remove({"weekly"}).code, Code::ok);
  EXPECT_EQ(names(), Texts());
}

}  // namespace
