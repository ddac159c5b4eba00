#pragma once

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

namespace test {

/// The status of a process that calls `work` and ends with what it returns.
inline int in_another_process(const std::function<int()>& work) {
  const pid_t pid = fork();
  if (pid == 0) _exit(work());
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

inline bool was_killed(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL; }

/// Kills this process when it begins its n-th statement from now on, counted from 1.
inline void die_at_statement(int number) {
  static int left;
  left = number;
  const auto count = [](unsigned, void*, void*, void*) {
    if (--left == 0) kill(getpid(), SIGKILL);
    return 0;
  };
  static int (*const counter)(unsigned, void*, void*, void*) = count;
  const auto watch = [](sqlite3* db, const char**, const sqlite3_api_routines*) {
    return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, counter, nullptr);
  };
  int (*const watcher)(sqlite3*, const char**, const sqlite3_api_routines*) = watch;
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(watcher));
}

/// Lets SQLite fail when it syncs a directory for the n-th time from now on, counted from 1: it gets a
/// pipe, which cannot be synced. At the end of a transaction that is after the deletion of the journal.
class FailingSync {
 public:
  explicit FailingSync(int number) {
    left() = number;
    sqlite3_vfs* const files = sqlite3_vfs_find(nullptr);
    original() = files->xGetSystemCall(files, kCall);
    files->xSetSystemCall(files, kCall, reinterpret_cast<sqlite3_syscall_ptr>(open_directory));
  }
  ~FailingSync() {
    sqlite3_vfs* const files = sqlite3_vfs_find(nullptr);
    files->xSetSystemCall(files, kCall, nullptr);
  }
  FailingSync(const FailingSync&) = delete;
  FailingSync& operator=(const FailingSync&) = delete;

  static bool has_failed() { return left() <= 0; }

 private:
  static constexpr const char* kCall = "openDirectory";

  static int& left() {
    static int count = 0;
    return count;
  }
  static sqlite3_syscall_ptr& original() {
    static sqlite3_syscall_ptr call = nullptr;
    return call;
  }
  static int open_directory(const char* path, int* descriptor) {
    if (--left() != 0) return reinterpret_cast<int (*)(const char*, int*)>(original())(path, descriptor);
    int ends[2];
    if (pipe(ends) != 0) return SQLITE_CANTOPEN;
    close(ends[1]);
    *descriptor = ends[0];
    return SQLITE_OK;
  }
};

}  // namespace test
