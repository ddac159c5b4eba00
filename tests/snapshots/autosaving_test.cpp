// autosave(): the new one is stored before an old one goes.

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "snapshots/lock.h"
#include "snapshots/restoring.h"
#include "snapshots/small_disk.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

class AutosaveTest : public Saving {
 protected:
  AutosaveTest() {
    saved("weekly");
    for (const int number : {1, 2, 3}) add(old_name(number), number);
  }
  ~AutosaveTest() override { expect_nothing_held(); }

  static std::string old_name(int number) {
    return "autosave-2026-01-0" + std::to_string(number) + "-00-00-00";
  }

  void add(const std::string& name, std::int64_t time) const {
    Database(database())
        .run("insert into Config (name, version, keybase, etc, type, save_time) select '" + name +
             "', version, keybase, etc, type, " + std::to_string(time) +
             " from Config where name = 'weekly'");
  }

  static AutosaveOptions keeping(std::int64_t most) {
    AutosaveOptions options;
    options.most = most;
    return options;
  }

  static Autosaved done(const AutosaveOptions& options) {
    const auto result = autosave(options);
    EXPECT_TRUE(result) << shown(result ? Error{} : result.error());
    return result ? *result : Autosaved{};
  }

  static Error refused(const AutosaveOptions& options) {
    const auto result = autosave(options);
    return result ? Error{} : result.error();
  }

  static Texts deleted(const Autosaved& result) {
    Texts names;
    for (const Victim& victim : result.deleted) names.push_back(victim.snapshot.config.name);
    return names;
  }
};

TEST_F(AutosaveTest, StoresOneAndDeletesTheOldest) {
  const Autosaved result = done(keeping(2));
  EXPECT_EQ(result.saved.outcome, Saved::Outcome::created);
  const std::string name = result.saved.snapshot.config.name;
  EXPECT_TRUE(is_autosave(name)) << name;
  EXPECT_TRUE(is_live(name));
  EXPECT_EQ(deleted(result), (Texts{old_name(1), old_name(2)}));
  EXPECT_EQ(stored(), (Texts{"weekly", old_name(3), name}));
}

TEST_F(AutosaveTest, NamesOfOneSecondAreNumbered) {
  Texts names;
  for (int i = 0; i < 4; ++i) names.push_back(done(keeping(99)).saved.snapshot.config.name);
  for (const std::string& name : names) EXPECT_TRUE(is_autosave(name)) << name;
  EXPECT_EQ(stored().size(), 8U);
}

TEST_F(AutosaveTest, TheNewOneStaysWhateverTheClockSays) {
  const std::int64_t future = std::time(nullptr) + 86400;
  add("autosave-2031-01-01-00-00-00", future);
  const Autosaved result = done(keeping(1));
  EXPECT_EQ(deleted(result).size(), 4U);
  EXPECT_EQ(stored(), (Texts{"weekly", result.saved.snapshot.config.name}));
}

TEST_F(AutosaveTest, PinnedOnesDoNotCount) {
  ASSERT_EQ(pin({old_name(1)}, true).code, Code::ok);
  const Autosaved result = done(keeping(2));
  EXPECT_EQ(deleted(result), Texts{old_name(2)});
}

TEST_F(AutosaveTest, AFailureCostsNoOldOne) {
  host.on_command = [](const std::string&) { return 1; };
  EXPECT_EQ(refused(keeping(1)).code, Code::failed);
  EXPECT_EQ(stored(), (Texts{"weekly", old_name(1), old_name(2), old_name(3)}));
}

TEST_F(AutosaveTest, IfNothingHasChangedOldOnesGoAllTheSame) {
  AutosaveOptions options = keeping(2);
  options.if_changed = true;
  const std::string name = done(options).saved.snapshot.config.name;
  EXPECT_EQ(name, "weekly");
  EXPECT_EQ(stored(), (Texts{"weekly", old_name(2), old_name(3)}));
  // The newest one is no proof of itself: it may be damaged, and still be listed as equal.
  Database(database()).run("update Config set keybase = zeroblob(length(keybase))");
  options.most = 1;
  const Autosaved result = done(options);
  EXPECT_EQ(result.saved.outcome, Saved::Outcome::created);
  EXPECT_TRUE(is_live(result.saved.snapshot.config.name));
  EXPECT_EQ(deleted(result), (Texts{old_name(2), old_name(3)}));
  EXPECT_EQ(stored(), (Texts{"weekly", result.saved.snapshot.config.name}));
}

/// The one that is stored has such a file, and a new one would not.
TEST_F(AutosaveTest, AFileThatMayNotBeReadIsNoChange) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  AutosaveOptions options = keeping(99);
  options.if_changed = true;
  ASSERT_EQ(shell("chown -R 65534 " + root() + " " + etc_dir() + " && chown 0 " + config("user/key_set") +
                  " && chmod 600 " + config("user/key_set")),
            0);
  // From then on the times of a file say that it is as it was.
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  ASSERT_EQ(done(options).saved.outcome, Saved::Outcome::created);
  const pid_t child = fork();
  if (child == 0) {
    if (setuid(65534) != 0) _exit(2);
    const auto result = autosave(options);
    _exit(result && result->saved.outcome == Saved::Outcome::unchanged ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(AutosaveTest, WithoutNotesThatCanBeReadNothingIsDeleted) {
  write_file(notes_file(), std::string(5000, 'x'));
  const Autosaved result = done(keeping(1));
  EXPECT_EQ(result.saved.outcome, Saved::Outcome::created);
  EXPECT_EQ(result.undecided.code, Code::no_storage);
  EXPECT_EQ(stored().size(), 5U);
}

TEST_F(AutosaveTest, OneThatCannotBeDeletedDoesNotStopTheOthers) {
  // A foreign table may have two rows of one id.
  const Database storage(database());
  storage.run("create table Copy as select * from Config");
  storage.run("drop table Config");
  storage.run("alter table Copy rename to Config");
  storage.run("insert into Config select * from Config where name = '" + old_name(2) + "'");
  const Autosaved result = done(keeping(1));
  EXPECT_EQ(deleted(result), (Texts{old_name(1), old_name(3)}));
  ASSERT_EQ(result.undeleted.size(), 2U);
  EXPECT_EQ(result.undeleted[0].victim.snapshot.config.name, old_name(2));
  EXPECT_EQ(result.undeleted[0].error.code, Code::no_storage);
}

TEST_F(AutosaveTest, OneLockAndOneWait) {
  AutosaveOptions options = keeping(1);
  options.wait = std::chrono::milliseconds(50);
  {
    const auto lock = Lock::take("saving", Deadline(std::chrono::milliseconds(0)));
    ASSERT_TRUE(lock);
    EXPECT_EQ(refused(options).code, Code::busy);
  }
  // Held from the packing to the last deletion.
  bool was_taken = false;
  after_packing([&](int) { was_taken = Lock::is_taken(); });
  EXPECT_EQ(deleted(done(keeping(1))).size(), 3U);
  EXPECT_TRUE(was_taken);
}

TEST_F(AutosaveTest, WhatIsWrongIsRefused) {
  EXPECT_EQ(refused(keeping(0)).code, Code::bad_argument);
  EXPECT_EQ(refused(keeping(-3)).code, Code::bad_argument);
  AutosaveOptions options = keeping(1);
  options.type = ConfSave::conf_none;
  EXPECT_EQ(refused(options).code, Code::bad_argument);
  EXPECT_EQ(stored().size(), 4U);
}

class AutosaveOnAFullDisk : public Saving {
 protected:
  AutosaveOnAFullDisk() : disk_(state_dir(), 8 << 20) {}
  SmallDisk disk_;
};

TEST_F(AutosaveOnAFullDisk, CostsNoOldOne) {
  AutosaveOptions options;
  options.most = 2;
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(autosave(options));
  const Texts before = stored();
  ASSERT_EQ(before.size(), 2U);
  shell("head -c 300000 /dev/urandom >" + config("user/gateway.conf"));
  disk_.fill();
  options.most = 1;
  const auto result = autosave(options);
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().code, Code::no_space);
  EXPECT_EQ(stored(), before);
  for (const std::string& name : before) {
    const auto verdict = verify({name});
    ASSERT_TRUE(verdict);
    EXPECT_EQ(verdict->state, Verdict::State::intact) << name;
  }
}

}  // namespace
