#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>

#include "confsave/snapshots.h"
#include "snapshots/lock.h"
#include "snapshots/small_disk.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;

class StatusTest : public Gateway {
 protected:
  StatusTest() {
    make_configuration();
    for (const std::string& dir : {state_dir(), temp_dir()}) chmod(dir.c_str(), 0700);
    put_aged("weekly", 0);
    chmod(database().c_str(), 0600);
  }

  void put_aged(const std::string& name, int days, const std::string& keybase = "x'00'") {
    put({name, kCurrent, 1, std::to_string(std::time(nullptr) - days * 86400L - 60), "NULL", keybase});
  }

  /// "code: text" of everything that needs attention, with "<root>" for the gateway's directory.
  Texts attention() {
    const auto found = status();
    if (!found) return {found.error().text};
    Texts texts;
    for (const Attention& item : found->attention) {
      std::string text = item.code + ": " + item.text;
      for (auto at = text.find(root()); at != std::string::npos; at = text.find(root())) {
        text.replace(at, root().size(), "<root>");
      }
      texts.push_back(text);
    }
    return texts;
  }
};

TEST_F(StatusTest, OfAGatewayInOrder) {
  put_aged("autosave-2026-01-02-03-04-05", 2);
  put_aged("autosave-2026-01-02-03-04-05-1", 1);
  put_aged("autosave", 0);
  // Of the packet filter, which no listing shows.
  put_aged("corlu-config", -1);
  const auto found = status();
  ASSERT_TRUE(found) << found.error().text;
  EXPECT_EQ(attention(), Texts());
  EXPECT_EQ(found->snapshots, 4);
  EXPECT_EQ(std::to_string(found->newest),
            query("select max(save_time) from Config where name <> 'corlu-config'")[0][0]);
  EXPECT_EQ(std::to_string(found->newest_autosave),
            query("select save_time from Config where name = 'autosave-2026-01-02-03-04-05-1'")[0][0]);
  EXPECT_EQ(found->storage_bytes, static_cast<long>(std::filesystem::file_size(database())));
  EXPECT_GT(found->free_bytes, 0);
}

TEST_F(StatusTest, LeftoversOfKilledProcesses) {
  for (const std::string& dir : {config_dir(), etc_dir()}) {
    for (const char* name : {"Ab3dEf", "backup", "Ab3dEfg", "Ab3d.f"}) {
      mkdir((dir + name).c_str(), 0700);
    }
    mkdir((dir + "Op3nEd").c_str(), 0755);
    write_file(dir + "F1leXX", "");
    chmod((dir + "F1leXX").c_str(), 0600);
  }
  write_file(temp_dir() + "/Zz9Zz9", "");
  chmod((temp_dir() + "/Zz9Zz9").c_str(), 0600);
  mkdir((temp_dir() + "/D1recT").c_str(), 0700);
  const std::string killed = " is left from a process that was killed: remove it";
  EXPECT_EQ(attention(), (Texts{"leftovers: '/mnt/main/etc/Ab3dEf'" + killed,
                                "leftovers: '<root>/config/Ab3dEf'" + killed,
                                "leftovers: '<root>/temp/Zz9Zz9'" + killed}));
  {
    const auto lock = Lock::take("a restore", Deadline(milliseconds(0)));
    EXPECT_EQ(attention(), Texts());
  }
  EXPECT_EQ(attention().size(), 3U);
  shell("rm -r " + config_dir() + " " + temp_dir() + "; cd " + etc_dir() +
        " && rm -r Ab3dEf F1leXX Op3nEd backup");
  EXPECT_EQ(attention(), Texts());
}

TEST_F(StatusTest, ARestoreThatIsNotFinished) {
  ASSERT_TRUE(save({"typed"}));
  shell("rm " + config_dir() + "gw1.conf");
  RestoreOptions options;
  options.keep = false;
  options.check = [this] {
    EXPECT_EQ(attention(), Texts{"pending: the restore of 'typed' waits for its check"});
    // The journal as it is now is what a power cut would leave.
    shell("cp -a " + state_dir() + " " + root() + "/then; cd " + config_dir() +
          " && cp -a .confsave-restore-* " + root() + "/then");
    return true;
  };
  EXPECT_TRUE(restore({"typed"}, options));
  EXPECT_EQ(attention(), Texts());
  shell("cp -a " + root() + "/then/restore.db* " + state_dir() + "; mv " + root() +
        "/then/.confsave-restore-* " + config_dir());
  EXPECT_EQ(attention(),
            Texts{"interrupted: the restore of 'typed' was interrupted: run 'confsave recover'"});
  shell("rm -r " + config_dir() + ".confsave-restore-*; rm " + state_dir() + "/restore.db*");
  EXPECT_EQ(attention(), Texts());
  write_file(state_dir() + "/restore.db", std::string(5000, 'x'));
  const Texts found = attention();
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].find("interrupted: <root>/state/restore.db: "), 0U) << found[0];
}

TEST_F(StatusTest, StagingDirectoriesThatNoJournalKnows) {
  for (const std::string& dir : {config_dir(), etc_dir()}) {
    for (const char* name : {".confsave-restore-0123456789abcdef", ".confsave-restore-0123456789abcde",
                             ".confsave-restore-0123456789abcdefa", ".confsave-restore-0123456789abcdeg",
                             ".confsave-0123456789abcdef", "confsave-restore-0123456789abcdef"}) {
      mkdir((dir + name).c_str(), 0700);
    }
  }
  const std::string killed = " may hold files that a restore has set aside: look at them, then remove it";
  EXPECT_EQ(attention(), (Texts{"leftovers: '/mnt/main/etc/.confsave-restore-0123456789abcdef'" + killed,
                                "leftovers: '<root>/config/.confsave-restore-0123456789abcdef'" + killed}));
  // Recovery may need them.
  write_file(state_dir() + "/restore.db", std::string(5000, 'x'));
  EXPECT_EQ(attention().size(), 1U);
  shell("cd " + config_dir() + " && rm -r .confsave-* confsave-*; cd " + etc_dir() +
        " && rm -r .confsave-* confsave-*");
}

TEST_F(StatusTest, MissingFailoverFiles) {
  shell("rm " + etc_dir() + "failover.ini " + etc_dir() + "failoverd-config.crg");
  EXPECT_EQ(attention(),
            (Texts{"failover-missing: '/mnt/main/etc/failover.ini': No such file or directory",
                   "failover-missing: '/mnt/main/etc/failoverd-config.crg': No such file or directory"}));
}

TEST_F(StatusTest, WhatOtherUsersCanReadOrWrite) {
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  const std::string what = " is open to other users: remove their rights by chmod go-rwx";
  const std::string notes = state_dir() + "/notes.db";
  for (const auto& [path, shown] : {std::pair(state_dir(), "state"),
                                    {database(), "state/storage.db"},
                                    {notes, "state/notes.db"},
                                    {temp_dir(), "temp"}}) {
    struct stat before = {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    for (const mode_t mode : {0040U, 0020U, 0004U, 0002U}) {
      chmod(path.c_str(), before.st_mode | mode);
      EXPECT_EQ(attention(), Texts{"readable: '<root>/" + std::string(shown) + "'" + what});
    }
    chmod(path.c_str(), before.st_mode);
    EXPECT_EQ(attention(), Texts());
  }
}

TEST_F(StatusTest, NotesThatCannotBeRead) {
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  const std::string notes = state_dir() + "/notes.db";
  const std::string what =
      "readable: '<root>/state/notes.db' cannot be read, so that comments and pins are not known: ";
  const struct {
    std::string spoil;
    std::string text;
  } cases[] = {
      {"sqlite3 " + notes + " 'pragma user_version = 9'", "a newer version of ConfSave wrote this file"},
      {"head -c 5000 /dev/zero >" + notes, "file is not a database"},
      {"truncate -s 8192 " + notes,
       "the file is damaged (database disk image is malformed); without it only comments, pins and "
       "manifests are lost"},
      {"rm " + notes + " && ln -s missing " + notes,
       "this link leads to no file: its file system may not be mounted"},
  };
  const std::string good = read_file(notes);
  for (const auto& c : cases) {
    shell(c.spoil);
    EXPECT_EQ(attention(), Texts{what + c.text});
    Error error;
    EXPECT_EQ(list({}, error)->size(), 1U);
    EXPECT_EQ(error.path, notes);
    EXPECT_NE(error.text.find(c.text), std::string::npos) << error.text;
    shell("rm " + notes);
    write_file(notes, good);
    chmod(notes.c_str(), 0600);
    EXPECT_EQ(list({}, error)->size(), 1U);
    EXPECT_EQ(error.code, Code::ok);
  }
  const LockHolder holder(notes, 60000);
  EXPECT_EQ(attention(), Texts());
}

TEST_F(StatusTest, DirectoriesThatOtherUsersCanWrite) {
  for (const auto& [path, shown] : {std::pair(config_dir() + "user", "<root>/config/user"),
                                    {config_dir() + "hub", "<root>/config/hub"},
                                    {config_dir(), "<root>/config"},
                                    {etc_dir(), "/mnt/main/etc"}}) {
    std::filesystem::create_directories(path);
    struct stat before = {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    for (const mode_t mode : {0020U, 0002U}) {
      chmod(path.c_str(), before.st_mode | mode);
      EXPECT_EQ(attention(), Texts{"readable: '" + std::string(shown) +
                                   "' can be written by other users: remove that right by chmod go-w"});
    }
    chmod(path.c_str(), before.st_mode);
    EXPECT_EQ(attention(), Texts());
  }
}

TEST_F(StatusTest, OldSnapshots) {
  test::Database(database()).run("delete from Config");
  EXPECT_EQ(attention(), Texts{"stale: there is no snapshot"});
  put_aged("autosave-2026-01-02-03-04-05", 31);
  EXPECT_EQ(attention(), (Texts{"stale: the newest snapshot is 31 days old",
                                "stale: the newest autosave is 31 days old"}));
  put_aged("by-hand", 30);
  EXPECT_EQ(attention(), Texts{"stale: the newest autosave is 31 days old"});
  // No autosaves: their names have another form.
  for (const char* name : {"autosave-2026-01-02-03-04-05-", "autosave-2026-01-02-03-04-05-x",
                           "autosave-2026-01-02-03-04-5", "autosave", "xautosave-2026-01-02-03-04-05"}) {
    put_aged(name, 0);
  }
  EXPECT_EQ(attention(), Texts{"stale: the newest autosave is 31 days old"});
  put_aged("autosave-2026-02-02-03-04-05", 30);
  EXPECT_EQ(attention(), Texts());
  put_aged("autosave-2026-02-03-03-04-05", -1);
  EXPECT_EQ(attention(), Texts());
  put_aged("autosave-2026-02-04-03-04-05", -2);
  const std::string ahead =
      " is dated more than a day ahead of the clock, so its age is unknown: set the clock, or delete what "
      "'confsave list --sort saved' shows last";
  EXPECT_EQ(attention(),
            (Texts{"stale: the newest snapshot" + ahead, "stale: the newest autosave" + ahead}));
  shell("rm " + database());
  EXPECT_EQ(attention(), Texts{"stale: there is no snapshot: '<root>/state/storage.db' does not exist"});
}

TEST_F(StatusTest, LittleRoom) {
  shell("rm " + database());
  const SmallDisk disk(state_dir(), 16 << 20);
  chmod(state_dir().c_str(), 0700);
  put_aged("large", 0, "zeroblob(3 << 20)");
  chmod(database().c_str(), 0600);
  EXPECT_EQ(attention(), Texts());
  write_file(state_dir() + "/filler", std::string(4 << 20, 'x'));
  const auto found = status();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->free_bytes, disk.free_bytes());
  EXPECT_EQ(attention(),
            Texts{"space: '<root>/state' has " + std::to_string(disk.free_bytes()) + " bytes of room; " +
                  std::to_string((9 << 20) + 3) + " are needed for the next saves"});
  test::Database(database()).run("update Config set keybase = x'00'");
  EXPECT_EQ(attention(), Texts());
  disk.fill();
  EXPECT_EQ(attention(), Texts{"space: '<root>/state' has 0 bytes of room; 4194304 are needed for the "
                               "next saves"});
}

TEST_F(StatusTest, ChangesNothingAndWaitsForNobody) {
  const auto before = tree(root());
  EXPECT_EQ(attention(), Texts());
  EXPECT_EQ(tree(root()), before);
  const LockHolder holder(database(), 60000);
  ReadOptions options;
  options.wait = milliseconds(50);
  const auto found = status(options);
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().code, Code::busy);
}

TEST_F(StatusTest, WhatIsNoStorageIsAnError) {
  damage_database();
  const auto found = status();
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().code, Code::no_storage);
}

}  // namespace
