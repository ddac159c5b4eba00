#include "snapshots/waiter.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "snapshots/access.h"
#include "snapshots/blocked_signals.h"
#include "snapshots/deadline.h"
#include "snapshots/descriptor.h"
#include "snapshots/system_error.h"

namespace ConfSave::snapshots {
namespace {

using Words = std::vector<std::string>;

/// The end of a pipe that a child keeps until it has become the program.
constexpr int kReport = 3;
constexpr const char* kReadyVariable = "CONFSAVE_READY";
/// A busy systemd may need seconds; then a process waits instead.
constexpr std::chrono::seconds kLongestWait{10};

bool is_under_systemd() {
  struct stat status = {};
  return geteuid() == 0 && lstat("/run/systemd/system", &status) == 0 && S_ISDIR(status.st_mode);
}

// ---- After fork(): only what a signal handler may call.

[[noreturn]] void fail(int report) {
  const int number = errno;
  const ssize_t written = write(report, &number, sizeof number);
  // Whoever reads nothing has a program that failed.
  _exit(written == static_cast<ssize_t>(sizeof number) ? 127 : 126);
}

/// No signal that the host ignores or holds back is ignored or held back by the program.
void reset_signals() {
  for (int number = 1; number < NSIG; ++number) static_cast<void>(std::signal(number, SIG_DFL));
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void become(char* const* words, char* const* settings, int report) {
  reset_signals();
  const int nothing = open("/dev/null", O_RDWR);
  if (nothing == -1) fail(report);
  // Neither may end up where the other one goes.
  const int high = fcntl(report, F_DUPFD, kReport + 1);
  const bool ready = high != -1 && dup2(nothing, STDIN_FILENO) != -1 &&
                     dup2(nothing, STDOUT_FILENO) != -1 && dup2(nothing, STDERR_FILENO) != -1 &&
                     dup2(high, kReport) != -1;
  if (!ready) fail(report);
  closefrom(kReport + 1);
  // The directory could not be unmounted.
  if (chdir("/") != 0) fail(kReport);
  execve(words[0], words, settings);
  fail(kReport);
}

/// The child of a child belongs to no session and to nobody who waits for it.
[[noreturn]] void become_detached(char* const* words, char* const* settings, int report) {
  if (setsid() == -1) fail(report);
  const pid_t process = _Fork();
  if (process == -1) fail(report);
  if (process == 0) become(words, settings, report);
  _exit(0);
}

// ----

std::vector<char*> pointers_of(Words& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// The environment, in which a waiter also finds where to say that it waits. clearenv(3) leaves no list.
Words settings() {
  Words found;
  for (char** setting = environ; setting != nullptr && *setting != nullptr; ++setting)
    found.emplace_back(*setting);
  found.push_back(std::string(kReadyVariable) + "=" + std::to_string(kReport));
  return found;
}

/// What a program that became detached says: a byte when it waits, the number of an error if it could not
/// be run, nothing if it ended.
Error read_report(const Descriptor& result, const std::string& program) {
  pollfd poller = {result.get(), POLLIN, 0};
  const Deadline deadline(kLongestWait);
  while (poll(&poller, 1, static_cast<int>(deadline.left().count())) == -1 && errno == EINTR) {
  }
  int number = 0;
  const ssize_t size = poller.revents != 0 ? read(result.get(), &number, sizeof number) : 0;
  if (size == 1) return {};
  if (size == static_cast<ssize_t>(sizeof number)) return system_error(program, number);
  return {Code::failed, 0, program,
          poller.revents != 0 ? "the program ended before it waited for the end of the window"
                              : "the program does not say that it waits for the end of the window"};
}

/// Returns when the program says that it waits.
Error start(Words words) {
  std::vector<char*> pointers = pointers_of(words);
  Words variables = settings();
  std::vector<char*> environment = pointers_of(variables);
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return system_error(words[0]);
  const Descriptor result(ends[0]);
  Descriptor report(ends[1]);
  const pid_t process = fork();
  if (process == -1) return system_error(words[0]);
  if (process == 0) become_detached(pointers.data(), environment.data(), report.get());
  report = Descriptor();
  while (waitpid(process, nullptr, 0) == -1 && errno == EINTR) {
  }
  return read_report(result, words[0]);
}

/// A scope does not end with the host's service or session. The platform finds its places there as it does
/// here: unlike the service of a timer, a scope has the environment and the file systems of who starts it.
Words in_scope(const Words& waiter, const Window& window) {
  Words words = {"/usr/bin/systemd-run",
                 "--scope",
                 "--quiet",
                 "--collect",
                 "--unit=confsave-revert-" + std::to_string(window.deadline),
                 "--description=Take back a restore of the configuration unless it is confirmed"};
  words.insert(words.end(), waiter.begin(), waiter.end());
  return words;
}

/// Writes a byte without the SIGPIPE that could end the host, whose signals stay as they are.
void write_byte(const Descriptor& pipe) {
  const BlockedSignals blocked;
  sigset_t broken_pipe;
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  sigset_t waiting;
  sigpending(&waiting);
  const bool is_of_another = sigismember(&waiting, SIGPIPE) == 1;
  if (write(pipe.get(), ".", 1) == 1 || is_of_another) return;
  const timespec no_time = {};
  while (sigtimedwait(&broken_pipe, nullptr, &no_time) == -1 && errno == EINTR) {
  }
}

}  // namespace

void say_ready() {
  const char* number = secure_getenv(kReadyVariable);
  if (number == nullptr || std::to_string(kReport) != number) return;
  unsetenv(kReadyVariable);
  const Descriptor report(kReport);
  // Who has started this has given up if nobody reads it.
  write_byte(report);
}

Error start_waiter(const std::string& program, const Window& window) {
  const std::string path = program.empty() ? CONFSAVE_PROGRAM : program;
  if (!may_access(path, X_OK)) return system_error(path);
  const Words waiter = {path, "revert", "--when-due"};
  if (is_under_systemd() && start(in_scope(waiter, window)).code == Code::ok) return {};
  return start(waiter);
}

}  // namespace ConfSave::snapshots
