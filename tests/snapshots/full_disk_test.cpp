// Deleting where there is no room for SQLite's journal, and deleting by a process that is killed.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <thread>
#include <tuple>

#include "confsave/snapshots.h"
#include "snapshots/reserve.h"
#include "snapshots/small_disk.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
namespace snapshots = ConfSave::snapshots;
namespace fs = std::filesystem;

class FullDiskTest : public Gateway {
 protected:
  std::string reserve() { return database() + "-reserve"; }
  std::string journal() { return database() + "-journal"; }

  void make_storage(const std::string& layout) {
    const test::Database storage(database());
    storage.run(layout);
    storage.run(kCreateTable);
    put_bytes("kept", 20000);
  }

  void put_bytes(const std::string& name, long bytes) {
    put({name, kCurrent, 1, "1000", "NULL", "randomblob(" + std::to_string(bytes) + ")"});
  }

  Rows row(const std::string& name) {
    return query("select *, hex(keybase) from Config where name = '" + name + "'");
  }

  /// A file of the size of the reserve, with blocks, that nobody but its owner may read.
  bool reserve_is_whole() {
    struct stat status = {};
    return lstat(reserve().c_str(), &status) == 0 && status.st_size == Reserve::kSize &&
           status.st_blocks * 512 >= Reserve::kSize && (status.st_mode & 07777U) == 0600U;
  }

  bool reserve_is_empty() {
    return read_file(reserve()) == std::string(static_cast<std::size_t>(Reserve::kSize), '\0');
  }

  long storage_size() {
    struct stat status = {};
    return stat(database().c_str(), &status) == 0 ? status.st_size : -1;
  }

  /// What a deletion without the reserve comes to.
  std::string refusal() {
    try {
      test::Database(database()).run("delete from Config");
      return "";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }
};

TEST_F(FullDiskTest, TheReserveIsMadeWhereThereIsRoom) {
  make_storage(kChooseLayout);
  EXPECT_EQ(note({"kept"}, "x").code, Code::ok);
  EXPECT_TRUE(reserve_is_whole());
  shell("rm " + reserve());
  EXPECT_EQ(snapshots::remove({"missing"}).code, Code::not_found);
  EXPECT_TRUE(reserve_is_whole());
  // What a killed process began is finished.
  write_file(reserve(), "x");
  EXPECT_EQ(pin({"kept"}, true).code, Code::ok);
  EXPECT_TRUE(reserve_is_whole());
}

TEST_F(FullDiskTest, TheReserveDoesNotTakeTheLastRoom) {
  const SmallDisk disk(state_dir(), 4 << 20);
  make_storage(kChooseLayout);
  EXPECT_EQ(note({"kept"}, "x").code, Code::ok);
  EXPECT_FALSE(exists(reserve()));
}

TEST_F(FullDiskTest, ALargeRowIsDeletedAndTheDiskHasRoomAgain) {
  const SmallDisk disk(state_dir(), 60 << 20);
  make_storage(kChooseLayout);
  put_bytes("large", 50 << 20);
  put_bytes("later", 20000);
  const Rows kept = row("kept");
  const Rows later = row("later");
  EXPECT_EQ(note({"kept"}, "x").code, Code::ok);
  disk.fill();
  EXPECT_EQ(refusal(), "delete from Config: database or disk is full");
  EXPECT_EQ(snapshots::remove({"large"}).code, Code::ok);
  EXPECT_GE(disk.free_bytes(), 50 << 20);
  EXPECT_TRUE(row("kept") == kept);
  EXPECT_TRUE(row("later") == later);
  EXPECT_EQ(row("large"), Rows());
  EXPECT_EQ(query("pragma integrity_check"), Rows{{"ok"}});
  EXPECT_TRUE(reserve_is_whole() && reserve_is_empty());
  EXPECT_FALSE(exists(journal()));
}

/// What the old row held does not go through the journal, and its pages are there for the next one.
TEST_F(FullDiskTest, ASnapshotIsReplacedWhereThereIsRoomForItsPagesOnly) {
  constexpr long kRow = 1 << 20;
  constexpr long kLeft = 300000;
  const SmallDisk disk(state_dir(), 6 << 20);
  make_configuration();
  SaveOptions options;
  options.overwrite = true;
  for (int night = 1; night <= 4; ++night) {
    shell("head -c " + std::to_string(kRow) + " /dev/urandom > " + config_dir() + "gw1.conf");
    ASSERT_TRUE(save({"weekly"}, options)) << night;
    EXPECT_LT(storage_size(), (night == 1 ? 2 : 3) * kRow) << night;
    if (night != 2) continue;
    const std::string filler = std::to_string(disk.free_bytes() - kLeft);
    shell("head -c " + filler + " /dev/zero > " + state_dir() + "/filler");
  }
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::intact);
}

TEST_F(FullDiskTest, SmallRowsAreDeletedOneAfterAnother) {
  const SmallDisk disk(state_dir(), 8 << 20);
  make_storage(kChooseLayout);
  for (int i = 0; i < 20; ++i) put_bytes("row" + std::to_string(i), 100);
  const Rows kept = row("kept");
  EXPECT_EQ(note({"kept"}, "x").code, Code::ok);
  for (int i = 0; i < 20; ++i) {
    disk.fill();
    EXPECT_EQ(disk.free_bytes(), 0);
    EXPECT_EQ(snapshots::remove({"row" + std::to_string(i)}).code, Code::ok) << i;
    EXPECT_TRUE(reserve_is_whole() && reserve_is_empty()) << i;
  }
  EXPECT_TRUE(row("kept") == kept);
}

TEST_F(FullDiskTest, NobodyElseGetsTheBlocksOfTheReserve) {
  const SmallDisk disk(state_dir(), 24 << 20);
  make_storage(kChooseLayout);
  put_bytes("large", 8 << 20);
  // Its pages have to be moved.
  put_bytes("later", 8 << 20);
  const Rows later = row("later");
  EXPECT_EQ(note({"kept"}, "x").code, Code::ok);
  disk.fill();
  std::atomic<bool> done{false};
  std::thread greedy([&] {
    while (!done) disk.fill();
  });
  EXPECT_EQ(snapshots::remove({"large"}).code, Code::ok);
  done = true;
  greedy.join();
  EXPECT_LT(fs::file_size(database()), 9U << 20);
  EXPECT_TRUE(row("later") == later);
  EXPECT_TRUE(reserve_is_whole());
}

TEST_F(FullDiskTest, AFileOfAnOldProgramKeepsItsSize) {
  const SmallDisk disk(state_dir(), 60 << 20);
  make_storage("pragma auto_vacuum=none");
  put_bytes("large", 50 << 20);
  const auto size = fs::file_size(database());
  EXPECT_EQ(note({"kept"}, "x").code, Code::ok);
  disk.fill();
  EXPECT_EQ(snapshots::remove({"large"}).code, Code::ok);
  EXPECT_EQ(fs::file_size(database()), size);
  EXPECT_EQ(row("large"), Rows());
  EXPECT_TRUE(reserve_is_whole());
}

TEST_F(FullDiskTest, WithoutTheReserveNothingIsLost) {
  const SmallDisk disk(state_dir(), 8 << 20);
  make_storage(kChooseLayout);
  put_bytes("large", 1 << 20);
  const Rows kept = row("kept");
  const Rows large = row("large");
  disk.fill();
  const Error error = snapshots::remove({"large"});
  EXPECT_EQ(error.code, Code::no_space);
  EXPECT_EQ(error.path, database());
  EXPECT_TRUE(row("kept") == kept);
  EXPECT_TRUE(row("large") == large);
  shell("rm " + state_dir() + "/filler");
  EXPECT_EQ(snapshots::remove({"large"}).code, Code::ok);
}

/// A file system that writes nothing in place: no write succeeds while the reserve takes up room.
std::string held_room;

ssize_t write_elsewhere(int file, const void* bytes, size_t size, off_t offset) {
  struct stat status = {};
  const std::string journal = held_room + "-journal";
  const bool is_held = exists(held_room + "-reserve") ||
                       (stat(journal.c_str(), &status) == 0 && status.st_size >= Reserve::kSize);
  if (!is_held) return pwrite(file, bytes, size, offset);
  errno = ENOSPC;
  return -1;
}

TEST_F(FullDiskTest, TheReserveIsDeletedWhereNothingIsWrittenInPlace) {
  make_storage(kChooseLayout);
  put_bytes("large", 1 << 20);
  EXPECT_EQ(note({"kept"}, "x").code, Code::ok);
  held_room = database();
  sqlite3_vfs* system = sqlite3_vfs_find(nullptr);
  const auto call = reinterpret_cast<sqlite3_syscall_ptr>(write_elsewhere);
  ASSERT_EQ(system->xSetSystemCall(system, "pwrite64", call), SQLITE_OK);
  const Error error = snapshots::remove({"large"});
  system->xSetSystemCall(system, "pwrite64", nullptr);
  EXPECT_EQ(error.code, Code::ok) << error.text;
  EXPECT_EQ(row("large"), Rows());
  EXPECT_TRUE(reserve_is_whole());
}

// ---------------------------------------------------------------------------------------------------

/// Runs `work` in a process that is killed when it enters its system call number `last`. False if it ended
/// before.
template <class Work>
bool killed_at(int last, Work work) {
  const pid_t pid = fork();
  if (pid == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    kill(getpid(), SIGSTOP);
    work();
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  // Each call stops the process twice.
  for (int stop = 0; stop < 2 * last - 1 && WIFSTOPPED(status); ++stop) {
    ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
    waitpid(pid, &status, 0);
  }
  if (!WIFSTOPPED(status)) return false;
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  return true;
}

/// Whether the disk is full, and the first call of every third.
class KillTest : public FullDiskTest, public testing::WithParamInterface<std::tuple<bool, int>> {};

TEST_P(KillTest, AKilledDeletionLosesNoOtherRow) {
  const SmallDisk disk(state_dir(), 8 << 20);
  make_storage(kChooseLayout);
  put_bytes("large", 200000);
  put_bytes("later", 20000);
  EXPECT_EQ(note({"large"}, "x").code, Code::ok);
  const Rows kept = row("kept");
  const Rows later = row("later");
  const Rows large = row("large");
  const std::string original = root() + "/original";
  fs::copy(state_dir(), original);
  int deleted = 0;
  const auto [is_full, first] = GetParam();
  int last = first;
  for (bool killed = true; killed; last += 3) {
    empty_directory(state_dir());
    fs::copy(original, state_dir());
    if (is_full) disk.fill();
    killed = killed_at(last, [] { return snapshots::remove({"large"}); });
    ASSERT_EQ(query("pragma integrity_check"), Rows{{"ok"}}) << last;
    ASSERT_TRUE(row("kept") == kept) << last;
    ASSERT_TRUE(row("later") == later) << last;
    const Rows found = row("large");
    ASSERT_TRUE(found == large || found.empty()) << last;
    deleted += found.empty() ? 1 : 0;
    ASSERT_EQ(snapshots::remove({"large"}).code, found.empty() ? Code::not_found : Code::ok) << last;
  }
  EXPECT_GT(deleted, 10);
  EXPECT_GT(last / 3 - deleted, 10);
}

// A killed process says nothing of its memory.
#if defined(CONFSAVE_SANITIZED)
constexpr int kThirds = 1;
#else
constexpr int kThirds = 3;
#endif
INSTANTIATE_TEST_SUITE_P(FullDisk, KillTest,
                         testing::Combine(testing::Bool(), testing::Range(1, kThirds + 1)));

}  // namespace
