#include "snapshots/own_descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <new>
#include <thread>

#include "snapshots/descriptor.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

struct flock whole_file() {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  return lock;
}

class OwnDescriptorsTest : public Gateway {
 protected:
  /// Whether a lock of this process is still there after a task has closed the file.
  bool keeps_a_lock() const {
    const std::string path = root() + "/locked";
    write_file(path, "");
    const Descriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock = whole_file();
    if (fcntl(file.get(), F_SETLK, &lock) != 0) return false;
    bool is_open = false;
    OwnDescriptors().run([&] { is_open = bool{Descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC))}; });
    lock = whole_file();
    return is_open && fcntl(file.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
  }

  /// The same in a child whose kernel does not have these calls.
  bool keeps_a_lock_without(long first, long second) const {
    const pid_t child = fork();
    if (child == 0) _exit(refuse(first, second) && keeps_a_lock() ? 0 : 1);
    int status = 1;
    return waitpid(child, &status, 0) == child && status == 0;
  }

 private:
  static bool refuse(long first, long second) {
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(first), 1, 0),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(second), 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter = {sizeof code / sizeof *code, code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
  }
};

TEST_F(OwnDescriptorsTest, AllTasksShareThem) {
  static constexpr int kNumber = 900;
  ASSERT_EQ(fcntl(kNumber, F_GETFD), -1);
  OwnDescriptors own;
  int found = -1;
  own.run([] { EXPECT_NE(dup2(STDERR_FILENO, kNumber), -1); });
  own.run([&found] { found = fcntl(kNumber, F_GETFD); });
  EXPECT_EQ(found, 0);
  EXPECT_EQ(fcntl(kNumber, F_GETFD), -1);
  own.run([] { close(kNumber); });
}

TEST_F(OwnDescriptorsTest, ALockOfTheProcessStays) { EXPECT_TRUE(keeps_a_lock()); }

TEST_F(OwnDescriptorsTest, OldKernels) {
  EXPECT_TRUE(keeps_a_lock_without(SYS_close_range, SYS_close_range));
  // The task has run all the same, in vain for the lock.
  EXPECT_FALSE(keeps_a_lock_without(SYS_close_range, SYS_unshare));
}

TEST_F(OwnDescriptorsTest, NothingOfTheProcessStaysOpen) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  OwnDescriptors own;
  own.run([] {});
  close(ends[1]);
  char byte = 0;
  EXPECT_EQ(read(ends[0], &byte, 1), 0) << "the end of the pipe";
  close(ends[0]);
}

TEST_F(OwnDescriptorsTest, WhatATaskThrowsIsThrown) {
  OwnDescriptors own;
  EXPECT_THROW(own.run([] { throw std::bad_alloc(); }), std::bad_alloc);
  bool has_run = false;
  own.run([&has_run] { has_run = true; });
  EXPECT_TRUE(has_run);
}

TEST_F(OwnDescriptorsTest, WithoutAThreadATaskRunsAllTheSame) {
  constexpr std::size_t kMoreThanThereIs = std::size_t{1} << 46U;
  pthread_attr_t usual;
  pthread_attr_t huge;
  ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
  pthread_attr_init(&huge);
  pthread_attr_setstacksize(&huge, kMoreThanThereIs);
  ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
  std::thread::id runner;
  OwnDescriptors().run([&runner] { runner = std::this_thread::get_id(); });
  EXPECT_EQ(runner, std::this_thread::get_id());
  EXPECT_EQ(pthread_setattr_default_np(&usual), 0);
  OwnDescriptors().run([&runner] { runner = std::this_thread::get_id(); });
  EXPECT_NE(runner, std::this_thread::get_id());
  pthread_attr_destroy(&usual);
  pthread_attr_destroy(&huge);
}

TEST_F(OwnDescriptorsTest, SignalsOfTheHostAreForItsOwnThreads) {
  const auto blocks = [] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGUSR1) == 1;
  };
  bool is_blocked = false;
  OwnDescriptors().run([&] { is_blocked = blocks(); });
  EXPECT_TRUE(is_blocked);
  EXPECT_FALSE(blocks());
}

}  // namespace
