// What calls that change something do about a restore that is not finished.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "snapshots/restoring.h"
#include "snapshots/small_disk.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

class RecoverBefore : public Restoring {
 protected:
  void change() const {
    write_file(config("gw1.conf"), "changed");
    ASSERT_EQ(shell("touch -d @1500000000 " + config("gw1.conf")), 0);
  }

  /// A process that dies while its restore waits for the check.
  void interrupt() {
    change();
    before_ = everything(true);
    const pid_t pid = fork();
    if (pid == 0) {
      RestoreOptions options = without_keeping();
      options.check = [] { return raise(SIGKILL) == 0; };
      static_cast<void>(restore({"weekly"}, options));
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_EQ(everything(), saved_);
    const auto found = unfinished();
    ASSERT_TRUE(found && *found);
    ASSERT_FALSE((*found)->is_pending);
  }

  void expect_recovered(const char* what) const {
    EXPECT_EQ(everything(true), before_) << what;
    EXPECT_EQ(staging_directories(), Texts()) << what;
    const auto found = unfinished();
    EXPECT_TRUE(found && !*found) << what;
  }

  /// Calls `act` in the check of a restore of "weekly", which succeeds.
  void while_pending(const std::function<void()>& act) const {
    change();
    RestoreOptions options = without_keeping();
    bool called = false;
    options.check = [&] {
      act();
      return called = true;
    };
    const auto result = restore({"weekly"}, options);
    EXPECT_TRUE(result) << shown(result ? Error{} : result.error());
    EXPECT_TRUE(called);
  }

  std::map<std::string, std::string> before_;
};

TEST_F(RecoverBefore, AnInterruptedRestoreIsUndoneFirst) {
  saved("other");
  const std::pair<const char*, std::function<Error()>> calls[] = {
      {"save", [] { return failure({"next"}, overwrite()); }},
      {"remove", [] { return ConfSave::snapshots::remove({"other"}); }},
      {"note", [] { return note({"weekly"}, "x"); }},
      {"pin", [] { return pin({"weekly"}, true); }},
      // What it was about does not matter any more.
      {"save over it", [] { return failure({"weekly"}, overwrite()); }},
  };
  for (const auto& [what, call] : calls) {
    interrupt();
    EXPECT_EQ(call().code, Code::ok) << what;
    expect_recovered(what);
  }
  EXPECT_TRUE(is_live("next"));
  EXPECT_TRUE(is_live("weekly"));
}

TEST_F(RecoverBefore, TheSnapshotOfAPendingRestoreStays) {
  while_pending([] {
    EXPECT_EQ(failure({"weekly"}, overwrite()).code, Code::pending);
    EXPECT_EQ(ConfSave::snapshots::remove({"weekly"}).code, Code::pending);
    const auto found = unfinished();
    EXPECT_TRUE(found && *found && (*found)->is_pending);
  });
  EXPECT_EQ(everything(), saved_);
  EXPECT_EQ(failure({"weekly"}, overwrite()).code, Code::ok);
  EXPECT_EQ(ConfSave::snapshots::remove({"weekly"}).code, Code::ok);
}

TEST_F(RecoverBefore, APendingRestoreDoesNotKeepOthersFromWorking) {
  saved("other");
  while_pending([] {
    EXPECT_EQ(failure({"weekly", 5}).code, Code::ok);
    EXPECT_EQ(code("next"), Code::ok);
    EXPECT_TRUE(is_live("next"));
    EXPECT_EQ(ConfSave::snapshots::remove({"other"}).code, Code::ok);
    EXPECT_EQ(note({"weekly"}, "pending").code, Code::ok);
    EXPECT_EQ(pin({"weekly"}, true).code, Code::ok);
  });
  EXPECT_EQ(everything(), saved_);
}

TEST_F(RecoverBefore, WhatCannotBeRecoveredNeedsAttention) {
  write_file(state_dir() + "/restore.db", std::string(5000, 'x'));
  EXPECT_EQ(code("next"), Code::needs_attention);
  EXPECT_EQ(ConfSave::snapshots::remove({"weekly"}).code, Code::needs_attention);
  EXPECT_EQ(note({"weekly"}, "x").code, Code::needs_attention);
  EXPECT_EQ(pin({"weekly"}, true).code, Code::needs_attention);
  EXPECT_EQ(stored(), Texts{"weekly"});
}

TEST_F(RecoverBefore, ADeletionMayMakeTheRoomThatARecoveryNeeds) {
  saved("other");
  shell("cp -a " + state_dir() + " " + root() + "/kept");
  const SmallDisk disk(state_dir(), 8 << 20);
  shell("cp -a " + root() + "/kept/. " + state_dir());
  interrupt();
  shell("rm -f " + state_dir() + "/restore.db-journal");
  disk.fill();
  const Error error = failure({"next"});
  EXPECT_EQ(error.code, Code::no_space);
  EXPECT_EQ(error.path, state_dir() + "/restore.db");
  EXPECT_EQ(ConfSave::snapshots::remove({"other"}).code, Code::ok);
  EXPECT_EQ(stored(), Texts{"weekly"});
  shell("rm " + state_dir() + "/filler");
  EXPECT_EQ(code("next"), Code::ok);
  expect_recovered("save");
}

}  // namespace
