#include "check_command.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <optional>
#include <thread>

#include "exit_status.h"
#include "interrupt.h"
#include "text.h"

namespace console {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kGrace{5};
constexpr std::chrono::milliseconds kPause{10};

/// After fork(): calls only what a signal handler may call.
[[noreturn]] void become(const char* command) {
  setpgid(0, 0);
  struct sigaction standard = {};
  standard.sa_handler = SIG_DFL;
  sigemptyset(&standard.sa_mask);
  sigaction(SIGINT, &standard, nullptr);
  sigaction(SIGXFSZ, &standard, nullptr);
  // Its group is not that of the terminal, which may stop who reads it or writes to it.
  static_cast<void>(std::signal(SIGTTIN, SIG_IGN));
  static_cast<void>(std::signal(SIGTTOU, SIG_IGN));
  TerminationCatcher::reset();
  const int nothing = open("/dev/null", O_RDONLY);
  const bool ready =
      nothing != -1 && dup2(nothing, STDIN_FILENO) != -1 && dup2(STDERR_FILENO, STDOUT_FILENO) != -1;
  if (ready) execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
  _exit(127);
}

/// The wait status, once the process has ended; nothing at `end`, or, if `heeds`, after an interrupt.
std::optional<int> wait_until(pid_t process, Clock::time_point end, bool heeds) {
  for (;;) {
    int status = 0;
    const pid_t ended = waitpid(process, &status, WNOHANG);
    if (ended == process) return status;
    if (ended == -1 && errno != EINTR) return 0x100;
    if (Clock::now() >= end || (heeds && interrupted())) return std::nullopt;
    std::this_thread::sleep_for(kPause);
  }
}

bool is_empty(pid_t group) { return kill(-group, 0) == -1 && errno == ESRCH; }

/// Ends the whole group: the command may have started others.
void end_group(pid_t process, bool has_ended) {
  kill(-process, SIGTERM);
  const auto end = Clock::now() + kGrace;
  if (!has_ended) has_ended = wait_until(process, end, false).has_value();
  while (has_ended && !is_empty(process) && Clock::now() < end) std::this_thread::sleep_for(kPause);
  kill(-process, SIGKILL);
  if (!has_ended) waitpid(process, nullptr, 0);
}

std::string reason(const std::optional<int>& status) {
  if (interrupted()) return "was interrupted";
  if (!status) return "took longer than " + std::to_string(kCheckLimit.count()) + " seconds";
  if (WIFSIGNALED(*status)) return std::string("was ended: ") + strsignal(WTERMSIG(*status));
  return "ended with exit status " + std::to_string(WEXITSTATUS(*status));
}

}  // namespace

bool run_check(const std::string& command) {
  std::cout.flush();
  const pid_t process = fork();
  if (process == -1) {
    std::cerr << "confsave: the check cannot be run: " << std::strerror(errno) << ".\n";
    return false;
  }
  if (process == 0) become(command.c_str());
  // The child does the same; whoever comes first.
  setpgid(process, process);
  const std::optional<int> status = wait_until(process, Clock::now() + kCheckLimit, true);
  if (status && *status == 0) return true;
  end_group(process, status.has_value());
  std::cerr << "confsave: the check '" << readable(command) << "' " << reason(status) << ".\n";
  return false;
}

}  // namespace console
