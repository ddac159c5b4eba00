#include "support/process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "kelmor/system.h"

namespace test {
namespace {

/// Runs the lock-holding program; its standard output becomes `out` when that is not -1.
int spawn_locker(const std::string& database, int milliseconds, int out) {
  std::string program = CONFSAVE_LOCKER;
  std::string file = database;
  std::string time = std::to_string(milliseconds);
  char* const arguments[] = {program.data(), file.data(), time.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (out != -1) posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + program);
  return pid;
}

}  // namespace

int shell(const std::string& command) {
  static const auto real = reinterpret_cast<int (*)(const char*, ...)>(dlsym(RTLD_NEXT, "my_system"));
  return real("%s", command.c_str());
}

bool lock_is_free(const std::string& database) {
  const int pid = spawn_locker(database, 0, -1);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

LockHolder::LockHolder(const std::string& database, int milliseconds) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  pid_ = spawn_locker(database, milliseconds, ends[1]);
  close(ends[1]);
  char ready = 0;
  const bool held = read(ends[0], &ready, 1) == 1;
  close(ends[0]);
  if (!held) throw std::runtime_error("the lock is not free");
}

LockHolder::~LockHolder() {
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

}  // namespace test
