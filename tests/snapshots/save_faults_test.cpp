#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "snapshots/killing.h"
#include "snapshots/saving.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Outcome = Saved::Outcome;

class SaveFaults : public Saving {
 protected:
  /// Checks that exactly the old or exactly the new snapshot is there, and nothing stands in the way.
  void expect_one_whole_row(const std::string& where) {
    EXPECT_EQ(stored(), Texts{"weekly"}) << where;
    const auto verdict = verify({"weekly"});
    ASSERT_TRUE(verdict) << where << shown(verdict.error());
    // The manifest is written after the row, which stands without it.
    const bool is_whole =
        verdict->state == Verdict::State::intact || verdict->state == Verdict::State::unproven;
    EXPECT_TRUE(is_whole) << where;
    EXPECT_EQ(verdict->problems, Texts()) << where;
    EXPECT_EQ(query("pragma integrity_check"), Rows{{"ok"}}) << where;
  }
};

// Files that change

TEST_F(SaveFaults, AFileThatChangesOnceIsPackedAgain) {
  const struct {
    const char* change;
    Texts missing;
  } cases[] = {
      {"echo changed > gw1.conf", {}},
      {"touch -d @5 gw2.conf", {}},
      {"chmod 644 gw1.conf", {}},
      {"rm gw1.conf", {}},
      {"echo x > gw9", {}},
      {"mkdir -p gw8/inner", {}},
      {"ln -sf gw9 gw7", {}},
      {"rm remote.txt", {"remote.txt"}},
  };
  for (const auto& c : cases) {
    after_packing([&](int packing) {
      if (packing == 1) shell("cd " + config_dir() + " && " + c.change);
    });
    const Saved result = saved("weekly", overwrite());
    EXPECT_EQ(packings, 2) << c.change;
    EXPECT_TRUE(is_live("weekly")) << c.change;
    Texts missing;
    for (const std::string& path : result.missing) missing.push_back(path.substr(config_dir().size()));
    EXPECT_EQ(missing, c.missing) << c.change;
  }
}

TEST_F(SaveFaults, AFileThatKeepsChangingEndsTheSave) {
  saved("weekly");
  const Rows before = query("select * from Config");
  after_packing([&](int packing) { write_file(config("gw1.conf"), std::to_string(packing)); });
  const Error error = failure({"weekly"}, overwrite());
  EXPECT_EQ(error.code, Code::changed_meanwhile);
  EXPECT_EQ(error.path, config("gw1.conf"));
  EXPECT_EQ(packings, 5);
  after_packing([&](int packing) { write_file(config("gw" + std::to_string(packing) + "0"), "x"); });
  EXPECT_EQ(code("weekly", overwrite()), Code::changed_meanwhile);
  after_packing([&](int packing) { shell("rm " + config("gw" + std::to_string(packing) + "0")); });
  EXPECT_EQ(code("weekly", overwrite()), Code::changed_meanwhile);
  EXPECT_EQ(query("select * from Config"), before);
  expect_nothing_held();
}

TEST_F(SaveFaults, AFileThatTarLeavesOutIsMissing) {
  host.on_command = [this](const std::string& command) -> std::optional<int> {
    if (command.find("cd " + config_dir()) != 0) return {};
    std::string without = command;
    return shell(without.replace(without.find(" remote.txt"), 11, ""));
  };
  const Saved result = saved("weekly");
  EXPECT_EQ(result.missing, Texts{config("remote.txt")});
  EXPECT_EQ(result.files, 32);
  EXPECT_EQ(members({"weekly"})->size(), 32U);
}

// Packing that fails

TEST_F(SaveFaults, TarFails) {
  saved("weekly");
  const Rows before = query("select * from Config");
  for (const char* command : {"cd ", "cd /mnt"}) {
    host.on_command = fail_commands(command, 2);
    EXPECT_EQ(shown(failure({"weekly"}, overwrite())),
              std::to_string(static_cast<int>(Code::failed)) + " : tar could not pack the configuration");
  }
  EXPECT_EQ(query("select * from Config"), before);
  // A change explains one failure, but not all of them.
  int failures = 0;
  host.on_command = [&](const std::string&) -> std::optional<int> {
    if (++failures > 1) return {};
    write_file(config("gw1.conf"), "changed");
    return 1;
  };
  saved("weekly", overwrite());
  EXPECT_TRUE(is_live("weekly"));
}

TEST_F(SaveFaults, ArchivesThatAreNotWholeAreNotStored) {
  saved("weekly");
  const Rows before = query("select * from Config");
  const struct {
    const char* damage;
    Code code;
  } cases[] = {
      {"truncate -s 0 ", Code::damaged},
      {"truncate -s 200 ", Code::damaged},
      {"truncate -s -1 ", Code::damaged},
      {"sh -c 'cd / && tar czf $0 --files-from /dev/null' ", Code::ok},
      {"sh -c 'cd /tmp && mkfifo gw-fifo && tar czf $0 gw-fifo; rm gw-fifo' ", Code::unsafe},
      {"sh -c 'cd /tmp && echo x > gw-other && tar czf $0 gw-other; rm gw-other' ", Code::failed},
  };
  for (const auto& c : cases) {
    host.on_command = [&](const std::string& command) -> std::optional<int> {
      const int result = shell(command);
      const std::size_t archive = command.find(temp_dir());
      shell(c.damage + command.substr(archive, temp_dir().size() + 7));
      return result;
    };
    const Code expected = c.code == Code::ok ? Code::incomplete : c.code;
    EXPECT_EQ(code("weekly", overwrite()), expected) << c.damage;
  }
  // One of the two is enough.
  for (const std::string& directory : {config_dir(), etc_dir()}) {
    host.on_command = [&](const std::string& command) -> std::optional<int> {
      if (command.find("cd " + directory) != 0) return {};
      const int result = shell(command);
      shell("truncate -s -1 " + command.substr(command.find(temp_dir()), temp_dir().size() + 7));
      return result;
    };
    const Error error = failure({"weekly"}, overwrite());
    EXPECT_EQ(error.code, Code::damaged) << directory;
    EXPECT_EQ(error.path, directory);
  }
  EXPECT_EQ(query("select * from Config"), before);
}

TEST_F(SaveFaults, DirectoriesThatCannotBeUsed) {
  const struct {
    const char* variable;
    std::string path;
    Code code;
    std::string text;
  } cases[] = {
      {"KELMOR_CONFIG_PATH", root() + "/con fig/", Code::unsafe,
       "the path has the character ' '; it becomes part of a shell command"},
      {"KELMOR_CONFIG_PATH", "relative/", Code::unsafe,
       "the path is not absolute; it becomes part of a shell command"},
      {"KELMOR_CONFIG_PATH", root() + "/state/../config/", Code::unsafe,
       "the path goes through \"..\"; it becomes part of a shell command"},
      {"KELMOR_CONFIG_PATH", root() + "/-config/", Code::unsafe,
       "a part of the path begins with \"-\"; it becomes part of a shell command"},
      {"KELMOR_CONFIG_PATH", root() + "/missing/", Code::failed, "No such file or directory"},
      {"KELMOR_TEMP_DIR", root() + "/$(id)", Code::unsafe,
       "the path has the character '$'; it becomes part of a shell command"},
      {"KELMOR_TEMP_DIR", root() + "/missing", Code::failed, "No such file or directory"},
  };
  for (const auto& c : cases) {
    const std::string before = std::getenv(c.variable);
    setenv(c.variable, c.path.c_str(), 1);
    const Error error = failure({"weekly"});
    setenv(c.variable, before.c_str(), 1);
    EXPECT_EQ(error.code, c.code) << c.path;
    EXPECT_EQ(error.path, c.path);
    EXPECT_EQ(error.text, c.text) << c.path;
  }
  EXPECT_EQ(host.commands.size(), 0U);
  EXPECT_EQ(stored(), Texts());
}

// Locks

TEST_F(SaveFaults, ALockEndsTheWait) {
  saved("weekly");
  const struct {
    const char* what;
    std::function<void(const std::function<void()>&)> while_locked;
  } cases[] = {{"a writer",
                [this](const auto& work) {
                  const LockHolder holder(database(), 60000);
                  work();
                }},
               {"a writer that has not written yet",
                [this](const auto& work) {
                  const Database other(database());
                  other.run("begin immediate");
                  work();
                }},
               {"a reader",
                [this](const auto& work) {
                  const Database other(database());
                  other.run("begin; select count(*) from Config");
                  work();
                }},
               {"another save", [this](const auto& work) {
                  shell("flock " + lock_file() + " sleep 60 & echo $! > " + root() + "/pid; sleep 0.3");
                  work();
                  shell("pkill -P $(cat " + root() + "/pid); kill $(cat " + root() + "/pid)");
                }}};
  for (const auto& c : cases) {
    c.while_locked([&] {
      const auto start = Clock::now();
      EXPECT_EQ(code("weekly", waiting(300)), Code::busy) << c.what;
      EXPECT_GE(Clock::now() - start, milliseconds(290)) << c.what;
      EXPECT_LT(Clock::now() - start, milliseconds(2000)) << c.what;
    });
    expect_one_whole_row(c.what);
    EXPECT_EQ(code("weekly", waiting(20000)), Code::ok) << c.what;
  }
}

TEST_F(SaveFaults, NoLockOfTheStorageIsHeldWhileFilesArePacked) {
  saved("weekly");
  after_packing([&](int) { EXPECT_TRUE(lock_is_free(database())); });
  saved("weekly", overwrite());
  EXPECT_EQ(packings, 1);
}

TEST_F(SaveFaults, ARowThatAHostOfTheContractStoresMeanwhileStays) {
  for (const bool has_notes : {true, false}) {
    if (!has_notes) write_file(notes_file(), std::string(5000, 'x'));
    after_packing([this](int) { put({"weekly", kCurrent}); });
    EXPECT_EQ(code("weekly"), Code::taken);
    EXPECT_EQ(query("select save_time from Config"), Rows{{"1000"}});
    Database(database()).run("delete from Config");
  }
}

// Storages and notes

TEST_F(SaveFaults, WhatIsNoStorageStaysAsItIs) {
  const struct {
    const char* sql;
    const char* text;
  } cases[] = {
      {"create table other (x)", "it has no table 'Config'"},
      {"create view Config as select 1 as id", "it has no table 'Config'"},
      {"create table Config (id integer primary key, name, version, save_time, load_time, keybase, etc)",
       "no such column: type"},
      {"create table Config (id integer primary key, name, version, type check (type > 5), save_time, "
       "load_time, keybase, etc)",
       "CHECK constraint failed: type > 5"},
  };
  for (const auto& c : cases) {
    shell("rm -f " + database());
    Database(database()).run(c.sql);
    const std::string before = read_file(database());
    const Error error = failure({"weekly"});
    EXPECT_EQ(error.code, Code::no_storage) << c.sql;
    EXPECT_EQ(error.text, c.text) << c.sql;
    EXPECT_TRUE(read_file(database()) == before) << c.sql;
  }
  shell("rm -f " + database());
  Database(database())
      .run(
          "create table Config (id integer primary key, name, version, type, save_time "
          "check (save_time < 5000), load_time, keybase, etc)");
  put({"weekly", kCurrent});
  EXPECT_EQ(code("weekly", overwrite()), Code::no_storage);
  EXPECT_EQ(stored(), Texts{"weekly"});
  write_file(database(), std::string(5000, 'x'));
  EXPECT_EQ(code("weekly"), Code::no_storage);
  EXPECT_EQ(read_file(database()), std::string(5000, 'x'));
  shell("rm -r " + state_dir());
  EXPECT_EQ(code("weekly"), Code::no_storage);
}

TEST_F(SaveFaults, AReadOnlyStateDirectory) {
  saved("weekly");
  ASSERT_EQ(shell("mount --bind " + state_dir() + " " + state_dir() + " && mount -o remount,bind,ro " +
                  state_dir()),
            0);
  EXPECT_EQ(code("weekly", overwrite()), Code::denied);
  EXPECT_EQ(shell("umount " + state_dir()), 0);
  expect_one_whole_row("");
}

TEST_F(SaveFaults, NotesThatCannotBeWrittenAreAWarning) {
  saved("weekly");
  const std::string good = read_file(notes_file());
  const struct {
    std::function<void()> spoil;
    std::string text;
  } cases[] = {
      {[&] { write_file(notes_file(), std::string(5000, 'x')); }, "file is not a database"},
      {[&] { Database(notes_file()).run("pragma user_version = 9"); },
       "a newer version of ConfSave wrote this file"},
      {[&] { shell("rm " + notes_file() + " && mkdir " + notes_file()); }, "Is a directory"},
  };
  SaveOptions options = overwrite();
  options.comment = "new";
  for (const auto& c : cases) {
    c.spoil();
    write_file(config("gw1.conf"), c.text);
    const Saved result = saved("weekly", options);
    EXPECT_EQ(result.outcome, Outcome::replaced);
    ASSERT_EQ(result.warnings.size(), 2U);
    EXPECT_EQ(result.warnings[0].find(
                  "if the old snapshot was pinned, the new one is not: " + notes_file() + ": "),
              0U);
    EXPECT_EQ(result.warnings[1], "the comment, the author and the list of files were not kept: " +
                                      notes_file() + ": " + c.text);
    EXPECT_EQ(result.snapshot.comment, "");
    EXPECT_TRUE(is_live("weekly"));
    shell("rm -r " + notes_file());
    write_file(notes_file(), good);
  }
}

TEST_F(SaveFaults, LockedNotesAreAWarningWithinTheLimit) {
  saved("weekly");
  const LockHolder holder(notes_file(), 60000);
  const auto start = Clock::now();
  const Saved result = saved("daily", waiting(500));
  EXPECT_LT(Clock::now() - start, milliseconds(3800));
  EXPECT_EQ(result.warnings.size(), 1U);
  EXPECT_EQ(stored(), (Texts{"weekly", "daily"}));
}

// Disks and crashes

TEST_F(SaveFaults, AFullDiskLeavesTheOldRow) {
  saved("weekly");
  shell("head -c 300000 /dev/urandom > " + config("gw1.conf"));
  const std::string storage = read_file(database());
  ASSERT_EQ(shell("mount -t tmpfs -o size=128k tmpfs " + temp_dir()), 0);
  const Error temporary = failure({"weekly"}, overwrite());
  EXPECT_EQ(temporary.code, Code::no_space) << shown(temporary);
  EXPECT_EQ(temporary.path, temp_dir());
  EXPECT_EQ(shell("umount " + temp_dir()), 0);
  ASSERT_EQ(shell("mount -t tmpfs -o size=256k tmpfs " + state_dir()), 0);
  write_file(database(), storage);
  EXPECT_EQ(code("weekly", overwrite()), Code::no_space);
  expect_one_whole_row("");
  EXPECT_EQ(members({"weekly"})->size(), 33U);
  EXPECT_EQ(shell("umount " + state_dir()), 0);
}

TEST_F(SaveFaults, AFileThatMayNotGrowLeavesTheOldRow) {
  saved("weekly");
  shell("head -c 300000 /dev/urandom > " + config("gw1.conf"));
  for (const rlim_t limit : {1000U, 20000U, 100000U, 310000U}) {
    const int status = in_another_process([limit] {
      std::signal(SIGXFSZ, SIG_IGN);
      const struct rlimit size = {limit, limit};
      setrlimit(RLIMIT_FSIZE, &size);
      return code("weekly", overwrite()) != Code::ok ? 0 : 1;
    });
    EXPECT_EQ(status, 0) << limit;
    expect_one_whole_row(std::to_string(limit));
    EXPECT_FALSE(is_live("weekly"));
  }
}

TEST_F(SaveFaults, KilledBetweenAnyTwoStatements) {
  saved("weekly");
  int kills = 0;
  for (bool killed = true; killed; ++kills) {
    ASSERT_LT(kills, 200);
    write_file(config("gw1.conf"), "change " + std::to_string(kills));
    killed = was_killed(in_another_process([kills] {
      die_at_statement(kills + 1);
      return code("weekly", overwrite()) == Code::ok ? 0 : 1;
    }));
    expect_one_whole_row("killed at statement " + std::to_string(kills + 1));
    ASSERT_TRUE(list());
  }
  EXPECT_GT(kills, 12);
  EXPECT_TRUE(is_live("weekly"));
  empty_directory(temp_dir());
}

TEST_F(SaveFaults, KilledWhileItPacks) {
  saved("weekly");
  for (int kills = 1; kills <= 2; ++kills) {
    write_file(config("gw1.conf"), "change " + std::to_string(kills));
    EXPECT_TRUE(was_killed(in_another_process([this, kills] {
      int commands = 0;
      host.on_command = [&](const std::string&) -> std::optional<int> {
        if (++commands == kills) kill(getpid(), SIGKILL);
        return {};
      };
      return code("weekly", overwrite()) == Code::ok ? 0 : 1;
    })));
    expect_one_whole_row("");
    EXPECT_FALSE(is_live("weekly"));
  }
  empty_directory(temp_dir());
  EXPECT_EQ(code("weekly", waiting(20000)), Code::ok);
}

// Many at a time

TEST_F(SaveFaults, ManyProcessesLoseNothing) {
  for (const bool same : {true, false}) {
    shell("rm -f " + state_dir() + "/*");
    std::vector<pid_t> processes;
    for (int i = 0; i < 8; ++i) {
      const pid_t pid = fork();
      if (pid == 0) {
        const Error error = failure({same ? "weekly" : "weekly" + std::to_string(i)});
        _exit(error.code == Code::ok ? 0 : error.code == Code::taken ? 1 : 2);
      }
      processes.push_back(pid);
    }
    int counts[3] = {};
    for (const pid_t pid : processes) {
      int status = 0;
      waitpid(pid, &status, 0);
      ASSERT_TRUE(WIFEXITED(status));
      ++counts[WEXITSTATUS(status)];
    }
    EXPECT_EQ(counts[0], same ? 1 : 8);
    EXPECT_EQ(counts[1], same ? 7 : 0);
    EXPECT_EQ(stored().size(), same ? 1U : 8U);
    EXPECT_EQ(query("pragma integrity_check"), Rows{{"ok"}});
    const auto found = list();
    ASSERT_TRUE(found);
    for (const Snapshot& snapshot : *found) {
      EXPECT_TRUE(is_live(snapshot.config.name));
      EXPECT_NE(snapshot.author, "");
    }
  }
}

TEST_F(SaveFaults, ManyThatReplaceTheSameSnapshot) {
  std::vector<std::thread> threads(8);
  std::atomic<int> failures = 0;
  host.log_level = 0;
  for (std::thread& thread : threads) {
    thread = std::thread([&failures] { failures += code("weekly", overwrite()) != Code::ok ? 1 : 0; });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  expect_one_whole_row("");
  EXPECT_TRUE(is_live("weekly"));
  EXPECT_EQ(Database(notes_file()).query("select count(*) from note"), Rows{{"1"}});
}

}  // namespace
