#include "command_runner.h"

#include <dlfcn.h>
#include <kelmor/system.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "interrupt.h"

namespace console {
namespace {

/// What a shell answers when it cannot run a command at all.
constexpr int kCannotRun = 127;

/// What a shell answers when an interrupt ended a command.
constexpr int kInterrupted = 130;

std::string failure;

std::string ending(int code) {
  if (code == kCannotRun) return "it cannot be run";
  if (code == kInterrupted) return "interrupted";
  if (code > 128) return strsignal(code - 128);
  return "exit status " + std::to_string(code);
}

int run_by_platform(const char* command) {
  static const auto platform = reinterpret_cast<int (*)(const char*, ...)>(dlsym(RTLD_NEXT, "my_system"));
  return platform != nullptr ? platform("%s", command) : kCannotRun;
}

/// The commands of a save pack files, and leave nothing to clean up: after an interrupt none is run.
int run(const char* command) {
  const int code = interrupted() ? kInterrupted : run_by_platform(command);
  if (code == kInterrupted) note_interrupt();
  if (code != 0 && failure.empty()) failure = ending(code);
  return code;
}

}  // namespace

const std::string& failed_command() { return failure; }

void forget_failed_command() { failure.clear(); }

}  // namespace console

int my_system(const char* pattern, ...) {
  std::va_list arguments;
  va_start(arguments, pattern);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, pattern, again);
  va_end(again);
  // Nothing is run when the pattern cannot be followed.
  std::vector<char> command(length < 0 ? 0 : static_cast<std::size_t>(length) + 1);
  const bool whole =
      length >= 0 && std::vsnprintf(command.data(), command.size(), pattern, arguments) == length;
  va_end(arguments);
  return whole ? console::run(command.data()) : console::kCannotRun;
}
