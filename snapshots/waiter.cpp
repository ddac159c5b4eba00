#include "snapshots/waiter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include "snapshots/boot.h"
#include "snapshots/deadline.h"
#include "snapshots/descriptor.h"
#include "snapshots/system_error.h"

namespace ConfSave::snapshots {
namespace {

using Words = std::vector<std::string>;

/// The end of a pipe that a child keeps until it has become the program.
constexpr int kReport = 3;
/// A busy systemd may need seconds; then a process waits instead.
constexpr std::chrono::seconds kLongestWait{10};
constexpr std::chrono::milliseconds kPause{2};

bool is_under_systemd() {
  struct stat status = {};
  return geteuid() == 0 && lstat("/run/systemd/system", &status) == 0 && S_ISDIR(status.st_mode);
}

// ---- After fork(): only what a signal handler may call.

[[noreturn]] void fail(int report) {
  const int number = errno;
  static_cast<void>(!write(report, &number, sizeof number));
  _exit(127);
}

/// No signal that the host ignores or holds back is ignored or held back by the program.
void reset_signals() {
  for (int number = 1; number < NSIG; ++number) static_cast<void>(std::signal(number, SIG_DFL));
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void become(char* const* words, int report) {
  reset_signals();
  const int nothing = open("/dev/null", O_RDWR);
  if (nothing == -1) fail(report);
  // Neither may end up where the other one goes.
  const int high = fcntl(report, F_DUPFD, kReport + 1);
  const bool ready = high != -1 && dup2(nothing, STDIN_FILENO) != -1 &&
                     dup2(nothing, STDOUT_FILENO) != -1 && dup2(nothing, STDERR_FILENO) != -1 &&
                     dup2(high, kReport) != -1 && fcntl(kReport, F_SETFD, FD_CLOEXEC) == 0;
  if (!ready) fail(report);
  closefrom(kReport + 1);
  // The directory could not be unmounted.
  if (chdir("/") != 0) fail(kReport);
  execv(words[0], words);
  fail(kReport);
}

/// The child of a child belongs to no session and to nobody who waits for it.
[[noreturn]] void become_detached(char* const* words, int report) {
  if (setsid() == -1) fail(report);
  const pid_t process = fork();
  if (process == -1) fail(report);
  if (process == 0) become(words, report);
  _exit(0);
}

// ----

/// The wait status of a child, which is killed after kLongestWait.
int wait_for(pid_t process) {
  const Deadline deadline(kLongestWait);
  for (;;) {
    int status = 0;
    const pid_t ended = waitpid(process, &status, WNOHANG);
    if (ended == process) return status;
    // A host that ignores SIGCHLD has no children to wait for.
    if (ended == -1 && errno != EINTR) return 0;
    if (deadline.left().count() == 0) {
      kill(process, SIGKILL);
      waitpid(process, nullptr, 0);
      return -1;
    }
    std::this_thread::sleep_for(kPause);
  }
}

/// Runs a program: detached, or up to its end.
Error start(Words words, bool detached) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return system_error(words[0]);
  const Descriptor result(ends[0]);
  Descriptor report(ends[1]);
  const pid_t process = fork();
  if (process == -1) return system_error(words[0]);
  if (process == 0) {
    if (detached) become_detached(pointers.data(), report.get());
    become(pointers.data(), report.get());
  }
  report = Descriptor();
  int number = 0;
  ssize_t size = 0;
  while ((size = read(result.get(), &number, sizeof number)) == -1 && errno == EINTR) {
  }
  const int status = wait_for(process);
  if (size == static_cast<ssize_t>(sizeof number)) return system_error(words[0], number);
  if (status == 0) return {};
  return {Code::failed, 0, words[0], "the program failed"};
}

/// The service is no child of this process: it gets the settings of the platform from here.
Words timer_words(const std::string& program, const Window& window) {
  const int64 left = window.deadline - since_boot();
  Words words = {"/usr/bin/systemd-run",
                 "--quiet",
                 "--collect",
                 "--unit=confsave-revert-" + std::to_string(window.deadline),
                 "--on-active=" + std::to_string(left) + "ms",
                 "--timer-property=AccuracySec=100ms",
                 "--description=Take back a restore of the configuration unless it is confirmed"};
  const std::string prefix = "KELMOR_";
  for (char** setting = environ; *setting != nullptr; ++setting) {
    if (std::strncmp(*setting, prefix.c_str(), prefix.size()) == 0) {
      words.push_back(std::string("--setenv=") + *setting);
    }
  }
  words.insert(words.end(), {program, "revert", "--when-due"});
  return words;
}

}  // namespace

Error start_waiter(const std::string& program, const Window& window) {
  const std::string path = program.empty() ? CONFSAVE_PROGRAM : program;
  if (access(path.c_str(), X_OK) != 0) return system_error(path);
  if (is_under_systemd() && start(timer_words(path, window), false).code == Code::ok) return {};
  return start({path, "revert", "--when-due"}, true);
}

}  // namespace ConfSave::snapshots
