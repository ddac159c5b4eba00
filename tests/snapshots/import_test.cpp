// What import_from() refuses, and that it then stores nothing.

#include "snapshots/exporting.h"
#include "snapshots/lock.h"
#include "snapshots/row_copy.h"
#include "snapshots/small_disk.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

class ImportTest : public Exporting {
 protected:
  ImportTest() {
    done(export_to({{"weekly"}}, exported()));
    original_ = read_file(exported());
    drop_everything();
    saved("mine");
    before_ = rows_in(database());
  }

  /// The refusal of what was done to the exported file, which is whole again afterwards.
  std::string refusal(const std::string& sql) {
    forge(sql);
    return refusal();
  }

  std::string refusal() {
    const Error error = refused(exported(), forced());
    EXPECT_EQ(error.path, exported()) << error.text;
    EXPECT_EQ(rows_in(database()), before_) << error.text;
    EXPECT_EQ(temp_files(), Texts());
    write_file(exported(), original_);
    const char* code = error.code == Code::damaged  ? "damaged"
                       : error.code == Code::unsafe ? "unsafe"
                                                    : "?";
    return code + std::string(": ") + without_root(error.text);
  }

  std::string without_root(const std::string& text) const {
    const std::size_t at = text.find(config_dir());
    return at == std::string::npos ? text : std::string(text).replace(at, config_dir().size(), "<config>/");
  }

  std::string original_;
  Rows before_;
};

TEST_F(ImportTest, ASnapshotGetsANewId) {
  const Imported result = imported(exported());
  ASSERT_EQ(result.snapshots.size(), 1U);
  EXPECT_EQ(result.snapshots[0].id, 2);
  EXPECT_EQ(result.snapshots[0].comment, "before the change");
  EXPECT_TRUE(is_live("weekly"));
  EXPECT_EQ(stored(), (Texts{"mine", "weekly"}));
}

TEST_F(ImportTest, AnotherNameKeepsTheRest) {
  ImportOptions options;
  options.pattern = "week*";
  options.name = "other";
  imported(exported(), options);
  EXPECT_EQ(stored(), (Texts{"mine", "other"}));
  const auto verdict = verify({"other"});
  ASSERT_TRUE(verdict);
  EXPECT_EQ(verdict->state, Verdict::State::intact);
  EXPECT_EQ(verdict->snapshot.config.save_time,
            std::stoll(test::Database(exported()).value("select save_time from Config")));
  options.name = "no/name";
  EXPECT_EQ(refused(exported(), options).code, Code::bad_argument);
}

/// The host has the file open by SQLite, too.
TEST_F(ImportTest, TheHostKeepsItsLocksOnTheFile) {
  const test::Database connection(exported());
  connection.run("begin immediate");
  imported(exported(), forced());
  EXPECT_FALSE(lock_is_free(exported()));
  connection.run("commit");
  EXPECT_TRUE(lock_is_free(exported()));
}

TEST_F(ImportTest, AVersionNeedsAPattern) {
  ImportOptions options;
  options.version = ConfSave::CURRENT_VERSION;
  for (const char* name : {"", "other"}) {
    if (*name != '\0') options.name = name;
    const Error error = refused(exported(), options);
    EXPECT_EQ(error.code, Code::bad_argument) << name;
    EXPECT_EQ(error.text, "a version without a pattern chooses nothing") << name;
  }
}

TEST_F(ImportTest, WhatIsWantedMustBeThereOnce) {
  ImportOptions options;
  options.pattern = "missing";
  EXPECT_EQ(refused(exported(), options).code, Code::not_found);
  options.pattern = "weekly";
  options.version = 5;
  EXPECT_EQ(refused(exported(), options).code, Code::not_found);
  forge(
      "insert into Config (name, version, keybase, etc, type, save_time) select name, 0, keybase, etc, 1, "
      "1 "
      "from Config");
  options.version.reset();
  EXPECT_EQ(refused(exported(), options).code, Code::ambiguous);
  options.version = 0;
  imported(exported(), options);
  EXPECT_TRUE(find({"weekly"}));
}

TEST_F(ImportTest, NothingIsOverwrittenWithoutARequest) {
  imported(exported());
  EXPECT_EQ(refused(exported()).code, Code::taken);
  ASSERT_EQ(pin({"weekly"}, true).code, Code::ok);
  EXPECT_EQ(refused(exported()).code, Code::pinned);
  EXPECT_EQ(stored(), (Texts{"mine", "weekly"}));
  {
    // Whether it is pinned is not known.
    const LockHolder holder(notes_file(), 60000);
    ImportOptions options = forced();
    options.wait = std::chrono::milliseconds(100);
    EXPECT_EQ(refused(exported(), options).code, Code::busy);
  }
  EXPECT_TRUE(imported(exported(), forced()).snapshots[0].pinned);
  EXPECT_EQ(query("select id from Config where name = 'weekly'"), Rows{{"3"}});
}

TEST_F(ImportTest, ANewerVersionIsRefusedWithoutARequest) {
  forge("update Config set version = version + (1 << 32)");
  EXPECT_EQ(refused(exported()).code, Code::newer);
  imported(exported(), forced());
}

TEST_F(ImportTest, OneRowThatIsNotInOrderStopsAll) {
  drop_everything();
  for (const std::string name : {"a", "b", "c"}) saved(name);
  ExportOptions options;
  options.overwrite = true;
  done(export_to({{"a"}, {"b"}, {"c"}}, exported(), options));
  drop_everything();
  forge("update Config set etc = substr(etc, 1, 100) where name = 'c'");
  EXPECT_EQ(refused(exported()).code, Code::damaged);
  EXPECT_EQ(stored(), Texts());
  // What nobody asks for does not matter.
  ImportOptions one;
  one.pattern = "a";
  imported(exported(), one);
  EXPECT_EQ(stored(), Texts{"a"});
}

TEST_F(ImportTest, MembersThatARestoreMustNotFollow) {
  put_archive({{"user/x", '0', "x", "", 04755}});
  EXPECT_EQ(refusal(), "unsafe: 'weekly': <config>/user/x: the member is set-uid or set-gid");
  put_archive({{"user/x", '0', "x", "", 02755}});
  EXPECT_EQ(refusal(), "unsafe: 'weekly': <config>/user/x: the member is set-uid or set-gid");
  put_archive({{"user/x", '3'}});
  EXPECT_EQ(refusal(), "unsafe: 'weekly': user/x: a member is a device, a FIFO or a socket");
  put_archive({{"../x"}});
  EXPECT_EQ(refusal(), "unsafe: 'weekly': ../x: the name of a member goes through \"..\"");
  put_archive({{"/etc/passwd"}});
  EXPECT_EQ(refusal(), "unsafe: 'weekly': /etc/passwd: the name of a member is absolute");
  put_archive({{"user", '2', "", "/etc"}, {"user/x"}});
  EXPECT_EQ(refusal(), "unsafe: 'weekly': user/x: a member is below a symbolic link of the same archive");
  // The group of new files in a directory.
  put_archive({{"user/", '5', "", "", 02755}, {"user/x", '0', "x"}});
  imported(exported());
}

TEST_F(ImportTest, ArchivesThatCannotBeDecoded) {
  EXPECT_EQ(refusal("update Config set keybase = substr(keybase, 1, length(keybase) - 4)"),
            "damaged: 'weekly': keybase: the archive ends in the middle");
  EXPECT_EQ(refusal("update Config set etc = x''"), "damaged: 'weekly': etc: the archive is empty");
  EXPECT_EQ(refusal("update Config set etc = null"), "damaged: 'weekly' has no failover files");
}

TEST_F(ImportTest, ValuesThatNoStorageHas) {
  const std::string wrong = "damaged: 'weekly' has a value that no storage has";
  for (const char* change :
       {"version = 'x'", "version = 1.5", "type = null", "type = 4", "type = -1", "type = 4294967297",
        "save_time = null", "save_time = 'now'", "load_time = 'x'", "keybase = null", "keybase = 'text'"}) {
    EXPECT_EQ(refusal("update Config set " + std::string(change)), wrong) << change;
  }
  EXPECT_EQ(refusal("update Config set name = cast(name as blob)"), wrong);
  EXPECT_EQ(refusal("update Config set version = -1"), "damaged: 'weekly': the version is negative");
  EXPECT_EQ(refusal("update Config set name = 'a/b'"),
            "damaged: 'a/b': the name has the character '/'; a name has letters, digits, '-' and '_'");
  EXPECT_EQ(
      refusal("update Config set name = 'a' || char(0) || 'b'"),
      "damaged: 'a\\x00b': the name has the character '\\x00'; a name has letters, digits, '-' and '_'");
  EXPECT_EQ(refusal("update Config set name = cast(x'613c09c29bc3a9' as text)"),
            "damaged: 'a<\\x09\\xc2\\x9bé': the name has the character '<'; a name has letters, digits, "
            "'-' and '_'");
  EXPECT_EQ(refusal("update Config set name = ''"), "damaged: '': the name is empty");
  EXPECT_EQ(refusal("update Config set name = substr(hex(zeroblob(50)), 1, 81)"),
            "damaged: '" + std::string(81, '0') + "': a name has at most 80 characters");
}

TEST_F(ImportTest, TablesThatNoStorageHas) {
  const auto has = [](const std::string& what) {
    return "damaged: it has a " + what + ", which no storage has";
  };
  EXPECT_EQ(refusal("create trigger t after insert on Config begin select 1; end"), has("trigger 't'"));
  EXPECT_EQ(refusal("create view v as select 1"), has("view 'v'"));
  EXPECT_EQ(refusal("create table x (y)"), has("table 'x'"));
  EXPECT_EQ(refusal("create index i on Config (upper(name))"), has("index 'i'"));
  EXPECT_EQ(refusal("create virtual table f using fts5(a)").substr(0, 30), has("table 'f'").substr(0, 30));
  EXPECT_EQ(refusal("drop table note; create table note (id integer primary key, comment text)"),
            has("table 'note'"));
  EXPECT_EQ(refusal("alter table Config rename to Other"), has("table 'Other'"));
  const std::string other = "damaged: its table 'Config' is not that of a storage";
  EXPECT_EQ(refusal("alter table Config add column more"), other);
  EXPECT_EQ(refusal("alter table Config add column more as (upper(name))"), other);
  EXPECT_EQ(refusal("alter table Config drop column load_time"), other);
  EXPECT_EQ(refusal("alter table Config rename column etc to other"), other);
  EXPECT_EQ(
      refusal(
          "create table Old as select * from Config; drop table Config; alter table Old rename to Config"),
      other);
}

TEST_F(ImportTest, AStructureThatIsDamaged) {
  // The index, which reading the rows does not need.
  const std::string page =
      test::Database(exported())
          .value("select rootpage from sqlite_schema where name like 'sqlite_autoindex_Config%'");
  const std::size_t size = std::stoul(test::Database(exported()).value("pragma page_size"));
  std::string bytes = original_;
  const std::size_t at = bytes.find("weekly", (std::stoul(page) - 1) * size);
  ASSERT_LT(at, std::stoul(page) * size);
  bytes[at] = 'x';
  write_file(exported(), bytes);
  EXPECT_EQ(refusal().substr(0, 23), "damaged: it is damaged:");
}

TEST_F(ImportTest, NotesThatDoNotFit) {
  EXPECT_EQ(refusal("update member set mode = 511 where path glob '*/gw1.conf'"),
            "damaged: 'weekly': <config>/gw1.conf: the member is not what was saved");
  EXPECT_EQ(refusal("update member set sha256 = zeroblob(32) where path glob '*/gw1.conf'"),
            "damaged: 'weekly': <config>/gw1.conf: the member is not what was saved");
  EXPECT_EQ(refusal("update note set comment = char(27) || 'x'"),
            "damaged: 'weekly': a comment has no control characters");
  EXPECT_EQ(refusal("update note set author = cast(x'ff' as text)"),
            "damaged: 'weekly': a comment is UTF-8 text");
  EXPECT_EQ(refusal("update origin set configuration = 'x'"),
            "damaged: it does not say where its paths are from");
  EXPECT_EQ(refusal("update origin set configuration = '/elsewhere/'").substr(0, 51),
            "damaged: a path of a manifest is in neither directo");
}

TEST_F(ImportTest, AManifestIsBelievedNothingThatTheArchivesDoNotShow) {
  forge("update member set secret = 0, device = 7, inode = 8, modified = 9, changed = 10");
  forge("update manifest set moment = 9223372036854775807");
  forge("insert into parent select manifest, '" + config("planted") + "', 4095, 0, 0 from parent limit 1");
  imported(exported());
  const test::Database notes(notes_file());
  const std::string of_weekly = " where manifest = (select id from note where comment <> '')";
  EXPECT_EQ(notes.value("select count(*) from member" + of_weekly + " and (device or inode or changed)"),
            "0");
  EXPECT_NE(notes.value("select count(*) from member" + of_weekly + " and secret"), "0");
  EXPECT_EQ(notes.value("select count(*) from parent where path glob '*planted'"), "0");
}

TEST_F(ImportTest, FilesThatAreNoStorage) {
  EXPECT_EQ(refused(root() + "/missing").code, Code::failed);
  EXPECT_EQ(refused(root()).code, Code::failed);
  EXPECT_EQ(refused(database()).code, Code::bad_argument);
  for (const std::string& bytes : {std::string(), std::string("x"), std::string(5000, 'x')}) {
    write_file(exported(), bytes);
    EXPECT_EQ(refusal().substr(0, 8), "damaged:");
  }
  write_file(exported(), original_.substr(0, original_.size() - 4096));
  EXPECT_EQ(refusal().substr(0, 8), "damaged:");
}

/// Closing a file that SQLite has open, too, would release the locks of this process.
TEST_F(ImportTest, TheFilesOfThisGatewayAreNotOpened) {
  ASSERT_EQ(note({"mine"}, "x").code, Code::ok);
  ASSERT_EQ(symlink(notes_file().c_str(), (root() + "/link").c_str()), 0);
  write_file(state_dir() + "/restore.db", "");
  const test::Database other(notes_file());
  other.run("begin immediate");
  for (const std::string& file : {database(), notes_file(), root() + "/link", state_dir() + "/restore.db",
                                  state_dir() + "/storage.db-reserve"}) {
    const Error error = refused(file);
    EXPECT_EQ(error.code, Code::bad_argument) << file << ": " << error.text;
    EXPECT_EQ(error.path, file);
  }
  EXPECT_NE(shell("sqlite3 " + notes_file() + " 'begin immediate' 2>/dev/null"), 0);
}

TEST_F(ImportTest, AFileIsNeverWritten) {
  forge("pragma journal_mode=wal");
  const Error wal = refused(exported());
  EXPECT_EQ(wal.code, Code::failed);
  EXPECT_NE(wal.text.find("WAL"), std::string::npos);
  write_file(exported(), original_);
  imported(exported());
  EXPECT_EQ(read_file(exported()), original_);
  EXPECT_FALSE(exists(exported() + "-journal"));
  EXPECT_FALSE(exists(exported() + "-wal"));
}

TEST_F(ImportTest, AnyStorageOfAnotherGatewayWillDo) {
  ASSERT_EQ(shell("cp " + database() + " " + root() + "/copied"), 0);
  drop_everything();
  imported(root() + "/copied");
  EXPECT_EQ(rows_in(database()), before_);
  const auto verdict = verify({"mine"});
  ASSERT_TRUE(verdict);
  EXPECT_EQ(verdict->state, Verdict::State::unproven);
}

TEST_F(ImportTest, ALockEndsTheWait) {
  ImportOptions options;
  options.wait = std::chrono::milliseconds(50);
  {
    const auto lock = Lock::take("saving", Deadline(std::chrono::milliseconds(0)));
    EXPECT_EQ(refused(exported(), options).code, Code::busy);
  }
  const LockHolder holder(database(), 60000);
  EXPECT_EQ(refused(exported(), options).code, Code::busy);
}

TEST_F(ImportTest, ARestoreThatWaitsForItsCheckIsNotDisturbed) {
  write_file(config("gw1.conf"), "changed");
  RestoreOptions options;
  options.keep = false;
  bool called = false;
  options.check = [&] {
    EXPECT_EQ(refused(exported()).code, Code::pending);
    return called = true;
  };
  EXPECT_TRUE(restore({"mine"}, options));
  EXPECT_TRUE(called);
  imported(exported());
}

TEST_F(ImportTest, ACopyThatIsNotWhatWasCheckedIsNoticed) {
  auto from = ConfSave::snapshots::Database::open(exported(), std::chrono::milliseconds(100));
  auto to = ConfSave::snapshots::Database::open(database(), std::chrono::milliseconds(100));
  ASSERT_TRUE(from && to);
  ArchiveDigests digests;
  const auto keybase = digest_of(*from, "keybase", 1);
  const auto etc = digest_of(*from, "etc", 1);
  ASSERT_TRUE(keybase && etc);
  RowToCopy row;
  row.rowid = 1;
  row.digests = &digests;
  for (const bool is_other : {false, true}) {
    digests = {*keybase, *etc};
    if (is_other) (*digests.etc)[0] ^= 1U;
    ASSERT_EQ(to->run("begin").code, Code::ok);
    const auto copied = copy_row(*from, row, *to);
    EXPECT_EQ(static_cast<bool>(copied), !is_other);
    EXPECT_TRUE(copied || copied.error().code == Code::changed_meanwhile);
    ASSERT_EQ(to->run("rollback").code, Code::ok);
  }
}

TEST_F(ImportTest, AFullDiskStoresNothing) {
  ASSERT_EQ(shell("head -c 400000 /dev/urandom >" + config("gw1.conf")), 0);
  saved("large");
  ExportOptions options;
  options.overwrite = true;
  done(export_to({{"mine"}, {"large"}}, exported(), options));
  drop_everything();
  const SmallDisk disk(state_dir(), 300 << 10);
  EXPECT_EQ(refused(exported()).code, Code::no_space);
  const auto all = list();
  EXPECT_TRUE(all && all->empty());
}

}  // namespace
