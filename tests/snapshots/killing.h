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

}  // namespace test
