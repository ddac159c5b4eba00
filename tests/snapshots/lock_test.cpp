#include "snapshots/lock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <optional>
#include <thread>

#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// A process that takes the lock, calls `work`, and waits to be killed.
class Holder {
 public:
  explicit Holder(const std::function<void()>& work = [] {}) {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      const auto lock = Lock::take("saving\tnightly", Deadline(milliseconds(0)));
      work();
      if (lock && write(ends[1], "x", 1) == 1) pause();
      _exit(1);
    }
    close(ends[1]);
    char ready = 0;
    const bool held = read(ends[0], &ready, 1) == 1;
    close(ends[0]);
    if (!held) throw std::runtime_error("the lock is not free");
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  ~Holder() { end(); }

  pid_t pid() const { return pid_; }

  void end() {
    if (pid_ == -1) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

class LockTest : public Gateway {
 protected:
  std::string file() { return state_dir() + "/confsave.lock"; }

  static Result<Lock> take(milliseconds wait = milliseconds(0)) {
    return Lock::take("testing", Deadline(wait));
  }

  static Error failure(milliseconds wait = milliseconds(0)) {
    const auto lock = take(wait);
    return lock ? Error{} : lock.error();
  }

  /// A command that inherits what this process has open.
  static pid_t start_sleep() {
    const pid_t pid = fork();
    if (pid == 0) {
      execlp("sleep", "sleep", "100", nullptr);
      _exit(127);
    }
    return pid;
  }

  static void end(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
};

TEST_F(LockTest, AnotherProcessHoldsIt) {
  Holder holder;
  const auto start = Clock::now();
  const Error error = failure(milliseconds(150));
  const auto waited = Clock::now() - start;
  EXPECT_EQ(error.code, Code::busy);
  EXPECT_EQ(error.path, file());
  EXPECT_EQ(error.text,
            "the lock is held by process " + std::to_string(holder.pid()) + ", saving\\x09nightly");
  EXPECT_GE(waited, milliseconds(149));
  EXPECT_LT(waited, milliseconds(1000));
  holder.end();
  EXPECT_EQ(failure().code, Code::ok);
}

TEST_F(LockTest, AWaitEndsWhenTheLockIsFree) {
  Holder holder;
  std::thread killer([&holder] {
    std::this_thread::sleep_for(milliseconds(200));
    holder.end();
  });
  EXPECT_EQ(failure(milliseconds(20000)).code, Code::ok);
  killer.join();
}

TEST_F(LockTest, ThreadsOfOneProcessExcludeEachOther) {
  int count = 0;
  std::atomic<bool> held = false;
  const auto work = [&] {
    for (int i = 0; i < 50; ++i) {
      const auto lock = take(milliseconds(30000));
      ASSERT_TRUE(lock);
      EXPECT_FALSE(held);
      held = true;
      std::this_thread::yield();
      ++count;
      held = false;
    }
  };
  std::thread one(work);
  std::thread other(work);
  one.join();
  other.join();
  EXPECT_EQ(count, 100);
}

TEST_F(LockTest, ACommandOfAKilledHolderKeepsIt) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  Holder holder([&ends] {
    const pid_t pid = start_sleep();
    EXPECT_EQ(write(ends[1], &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
  });
  pid_t command = -1;
  ASSERT_EQ(read(ends[0], &command, sizeof command), static_cast<ssize_t>(sizeof command));
  close(ends[0]);
  close(ends[1]);
  holder.end();
  EXPECT_EQ(failure(milliseconds(50)).code, Code::busy);
  kill(command, SIGKILL);
  EXPECT_EQ(failure(milliseconds(20000)).code, Code::ok);
}

TEST_F(LockTest, ReleasedInOrderItIsFreeWhateverInheritedIt) {
  std::optional<Lock> lock;
  lock.emplace(*take());
  const pid_t command = start_sleep();
  EXPECT_EQ(failure().code, Code::busy);
  lock.reset();
  EXPECT_EQ(failure().code, Code::ok);
  end(command);
}

TEST_F(LockTest, TheFileNamesItsHolderAndIsOtherwiseEmpty) {
  {
    const auto lock = take();
    ASSERT_TRUE(lock);
    EXPECT_EQ(read_file(file()), "process " + std::to_string(getpid()) + ", testing\n");
    EXPECT_NE(shell("flock -n " + file() + " true"), 0);
  }
  EXPECT_EQ(read_file(file()), "");
  EXPECT_EQ(shell("flock -n " + file() + " true"), 0);
}

TEST_F(LockTest, TheFileIsPrivateUnderAnyUmask) {
  for (const mode_t mask : {0000U, 0777U}) {
    shell("rm -f " + file());
    const mode_t before = umask(mask);
    EXPECT_EQ(failure().code, Code::ok);
    umask(before);
    struct stat status = {};
    ASSERT_EQ(stat(file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
  }
}

TEST_F(LockTest, WhatIsInItsPlaceIsRefused) {
  write_file(root() + "/other", "kept");
  const struct {
    std::string command;
    Code code;
    std::string text;
  } cases[] = {
      {"ln -s ../other " + file(), Code::failed, "Too many levels of symbolic links"},
      {"mkfifo " + file(), Code::failed, "this is not a regular file"},
      {"mkdir " + file(), Code::failed, "Is a directory"},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(shell(c.command), 0);
    const Error error = failure();
    EXPECT_EQ(error.code, c.code) << c.command;
    EXPECT_EQ(error.text, c.text) << c.command;
    EXPECT_EQ(error.path, file()) << c.command;
    shell("rm -r " + file());
  }
  EXPECT_EQ(read_file(root() + "/other"), "kept");
}

TEST_F(LockTest, ADirectoryThatCannotBeUsed) {
  ASSERT_EQ(shell("mount -t tmpfs -o ro tmpfs " + state_dir()), 0);
  EXPECT_EQ(failure().code, Code::denied);
  ASSERT_EQ(shell("umount " + state_dir()), 0);
  shell("rmdir " + state_dir());
  EXPECT_EQ(failure().code, Code::no_storage);
  EXPECT_EQ(failure().number, ENOENT);
}

TEST(DeadlineTest, AnyWaitIsALimit) {
  EXPECT_EQ(Deadline(milliseconds(-5)).left(), milliseconds(0));
  EXPECT_EQ(Deadline(milliseconds::min()).left(), milliseconds(0));
  EXPECT_GT(Deadline(milliseconds::max()).left(), std::chrono::hours(24 * 6));
  EXPECT_LE(Deadline(milliseconds(500)).left(), milliseconds(500));
  EXPECT_GT(Deadline(milliseconds(500)).left(), milliseconds(300));
}

}  // namespace
