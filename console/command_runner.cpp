#include "command_runner.h"

#include <dlfcn.h>
#include <kelmor/system.h>
#include <places.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

#include "advice.h"
#include "interrupt.h"
#include "progress_line.h"
#include "text.h"

namespace console {
namespace {

using Clock = ProgressLine::Clock;

/// What a shell answers when it cannot run a command at all.
constexpr int kCannotRun = 127;

/// What a shell answers when an interrupt ended a command.
constexpr int kInterrupted = 130;

std::optional<FailedCommand> failure;

/// One of the library's command lines, taken apart.
struct Command {
  std::string program;
  const char* progress;   ///< for a person who waits
  const char* action;     ///< for a message, followed by `place`
  std::string place;      ///< the directory that a person knows
  std::string directory;  ///< the directory that is written to
  std::string source;     ///< cp: the directory whose files it moves
};

/// The text between the first `begin` and the next `end` behind it.
std::string between(const std::string& text, const std::string& begin, const std::string& end) {
  const std::size_t from = text.find(begin);
  if (from == std::string::npos) return "";
  const std::size_t start = from + begin.size();
  return text.substr(start, text.find(end, start) - start);
}

/// Without the doubled slashes of the command lines.
std::string normal(const std::filesystem::path& path) { return path.lexically_normal().string(); }

std::string parent(const std::string& path) {
  return normal(std::filesystem::path(path).parent_path() / "");
}

/// The directory of a rehearsal is gone by the time that a person reads its name.
std::string known(const std::string& directory) {
  return directory.rfind(ConfSave::temporary_directory() + "/", 0) == 0 ? ConfSave::temporary_directory()
                                                                        : directory;
}

Command parse(const std::string& line) {
  const auto begins = [&](const char* text) { return line.rfind(text, 0) == 0; };
  if (begins("cd ")) {
    const std::string place = between(line, "cd ", " ");
    const bool failover = place == ConfSave::kFailoverDirectory;
    return {"tar",
            failover ? "packing the failover settings" : "packing the configuration",
            "packing",
            place,
            ConfSave::temporary_directory(),
            ""};
  }
  if (begins("tar ")) {
    const std::string scratch = between(line, " -C ", " ");
    return {"tar", "unpacking", "unpacking below", parent(scratch), known(parent(scratch)), ""};
  }
  if (begins("cp ")) {
    const std::string place = normal(between(line, "/* ", ". "));
    return {"cp",  "putting the files into place", "moving the files into", place,
            place, between(line, "-alf ", "/* ")};
  }
  const std::string scratch = between(line, "-rf ", " ");
  return {"rm", "cleaning up", "removing", scratch, parent(scratch), ""};
}

std::string ending(const Command& command, int code) {
  if (code == kCannotRun) return command.program + ": cannot be run";
  if (code == kInterrupted) return "interrupted";
  if (code > 128) return command.program + ": " + strsignal(code - 128);
  std::error_code ignored;
  if (command.program == "cp" && std::filesystem::is_empty(command.source, ignored) && !ignored) {
    return "an archive holds no file, as when it was saved without failover files";
  }
  return command.program + ": exit status " + std::to_string(code);
}

void note_failure(const Command& command, int code) {
  if (code == kInterrupted) note_interrupt();
  if (failure) return;
  failure = {command.program, command.action + (" '" + printable(command.place) + "'"),
             ending(command, code), code == kInterrupted ? "" : obstacle(command.directory)};
}

int run_by_platform(const std::string& command) {
  static const auto platform = reinterpret_cast<int (*)(const char*, ...)>(dlsym(RTLD_NEXT, "my_system"));
  return platform != nullptr ? platform("%s", command.c_str()) : kCannotRun;
}

/// Nothing when the pattern cannot be followed.
std::optional<std::string> format(const char* pattern, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, pattern, again);
  va_end(again);
  if (length < 0) return std::nullopt;
  std::vector<char> text(static_cast<std::size_t>(length) + 1);
  if (std::vsnprintf(text.data(), text.size(), pattern, arguments) != length) return std::nullopt;
  return std::string(text.data());
}

/// Consecutive commands share one timer.
Clock::time_point start_of_work(Clock::time_point last_end) {
  static Clock::time_point start;
  if (Clock::now() - last_end > ProgressLine::kPatience) start = Clock::now();
  return start;
}

int run_with_progress(const std::string& line, const char* progress) {
  static Clock::time_point last_end;
  std::optional<ProgressLine> shown;
  if (isatty(STDERR_FILENO) == 1) {
    try {
      shown.emplace(progress, start_of_work(last_end));
    } catch (const std::system_error&) {
      // No thread to be had: the command runs in silence.
    }
  }
  const int code = run_by_platform(line);
  shown.reset();
  last_end = Clock::now();
  return code;
}

/// After an interrupt only what cleans up is run.
int run(const std::string& line) {
  const Command command = parse(line);
  const bool runs = !interrupted() || command.program == "rm";
  const int code = runs ? run_with_progress(line, command.progress) : kInterrupted;
  if (code != 0) note_failure(command, code);
  return code;
}

}  // namespace

const std::optional<FailedCommand>& failed_command() { return failure; }

void forget_failed_command() { failure.reset(); }

}  // namespace console

int my_system(const char* pattern, ...) {
  std::va_list arguments;
  va_start(arguments, pattern);
  const auto command = console::format(pattern, arguments);
  va_end(arguments);
  return command ? console::run(*command) : console::kCannotRun;
}
