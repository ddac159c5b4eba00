#include "kelmor/system.h"

#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

/// The exit status of a shell that cannot run a command.
constexpr int kCannotRun = 127;

bool begins_with(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

/// Variables that change what `tar`, `gzip`, `cp`, `rm` or the shell do, or what code they load.
bool is_unsafe(std::string_view entry) {
  static constexpr std::string_view kNames[] = {
      "TAR_OPTIONS=", "TAR_RSH=", "TAPE=",      "GZIP=",     "POSIXLY_CORRECT=",      "BASH_ENV=",
      "ENV=",         "CDPATH=",  "SHELLOPTS=", "BASHOPTS=", "SIMPLE_BACKUP_SUFFIX=", "VERSION_CONTROL=",
  };
  for (const std::string_view name : kNames) {
    if (begins_with(entry, name)) return true;
  }
  return begins_with(entry, "LD_") || begins_with(entry, "BASH_FUNC_");
}

/// The directory beside this library that holds the `gzip` for commands. Empty if it is not installed.
std::string program_directory() {
  Dl_info library = {};
  if (dladdr(reinterpret_cast<const void*>(&is_unsafe), &library) == 0) return "";
  const std::string file = library.dli_fname;
  std::string directory = file.substr(0, file.rfind('/') + 1) + "kelmor-gzip";
  return access((directory + "/gzip").c_str(), X_OK) == 0 ? directory : "";
}

/// The environment of a command: the host's, without unsafe variables, and with `gzip` first on the path.
class Environment {
 public:
  Environment() {
    const char* path = std::getenv("PATH");
    path_ += path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    const std::string directory = program_directory();
    if (!directory.empty()) path_.insert(kPath.size(), directory + ":");
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
      if (!is_unsafe(*entry) && !begins_with(*entry, kPath)) entries_.push_back(*entry);
    }
    entries_.push_back(path_.data());
    entries_.push_back(nullptr);
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  char* const* get() const { return entries_.data(); }

 private:
  static constexpr std::string_view kPath = "PATH=";
  std::string path_{kPath};
  std::vector<char*> entries_;
};

/// Empty if the text cannot be formatted, for example because the locale cannot represent it.
std::optional<std::string> format_command(const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) return std::nullopt;
  std::string command(static_cast<std::size_t>(length) + 1, '\0');
  if (std::vsnprintf(command.data(), command.size(), format, arguments) != length) return std::nullopt;
  command.pop_back();
  return command;
}

/// While a command runs, an interrupt from the terminal ends the command and not the host. The host can
/// wait for its child even if it ignores SIGCHLD or has a handler that waits.
class CommandSignals {
 public:
  CommandSignals() {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGINT, &ignore, &interrupt_);
    sigaction(SIGQUIT, &ignore, &quit_);

    sigset_t child_signal;
    sigemptyset(&child_signal);
    sigaddset(&child_signal, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &child_signal, &mask_);

    sigaction(SIGCHLD, nullptr, &child_);
    if (forgets_children(child_)) {
      struct sigaction standard = {};
      standard.sa_handler = SIG_DFL;
      sigemptyset(&standard.sa_mask);
      sigaction(SIGCHLD, &standard, nullptr);
    }
  }

  CommandSignals(const CommandSignals&) = delete;
  CommandSignals& operator=(const CommandSignals&) = delete;

  ~CommandSignals() {
    if (forgets_children(child_)) sigaction(SIGCHLD, &child_, nullptr);
    sigaction(SIGINT, &interrupt_, nullptr);
    sigaction(SIGQUIT, &quit_, nullptr);
    pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
  }

  /// The host's signal mask, which the command inherits.
  const sigset_t& mask() const { return mask_; }

  /// The signals with the default action in the command. A signal that the host ignores stays ignored,
  /// except SIGCHLD: without it a shell cannot wait for its own children.
  sigset_t defaults() const {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    if (interrupt_.sa_handler != SIG_IGN) sigaddset(&set, SIGINT);
    if (quit_.sa_handler != SIG_IGN) sigaddset(&set, SIGQUIT);
    return set;
  }

 private:
  static bool forgets_children(const struct sigaction& action) {
    return action.sa_handler == SIG_IGN || (action.sa_flags & SA_NOCLDWAIT) != 0;
  }

  struct sigaction interrupt_ = {};
  struct sigaction quit_ = {};
  struct sigaction child_ = {};
  sigset_t mask_ = {};
};

class SpawnAttributes {
 public:
  explicit SpawnAttributes(const CommandSignals& signals) {
    posix_spawnattr_init(&attributes_);
    const sigset_t defaults = signals.defaults();
    posix_spawnattr_setsigdefault(&attributes_, &defaults);
    posix_spawnattr_setsigmask(&attributes_, &signals.mask());
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }

  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_ = {};
};

/// Uses posix_spawn(), because fork() copies the page tables of the host, however large it is.
int run(std::string command) {
  char shell[] = "sh";
  char option[] = "-c";
  char* const arguments[] = {shell, option, command.data(), nullptr};
  const Environment environment;

  const CommandSignals signals;
  const SpawnAttributes attributes(signals);
  pid_t child = -1;
  if (posix_spawn(&child, "/bin/sh", nullptr, attributes.get(), arguments, environment.get()) != 0) {
    return kCannotRun;
  }

  int status = 0;
  pid_t ended = -1;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended == -1 && errno == EINTR);
  if (ended != child) return kCannotRun;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int my_system(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  int result = kCannotRun;
  try {
    if (auto command = format_command(format, arguments)) result = run(std::move(*command));
  } catch (const std::exception&) {
    // Memory ran out before anything ran. A C caller gets the exit status of a shell that cannot start.
  }
  va_end(arguments);
  return result;
}
