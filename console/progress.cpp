// This program's own command runner, which comes before the platform's: it shows a person who waits at a
// terminal what is going on, and leaves the running to the platform.

#include <dlfcn.h>
#include <kelmor/system.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace console {
namespace {

using Clock = std::chrono::steady_clock;

/// The first sign comes when work takes this long, and the next ones as often.
constexpr auto kPatience = std::chrono::milliseconds(500);

/// What a shell answers when it cannot run a command at all.
constexpr int kCannotRun = 127;

/// When the last command ended.
Clock::time_point last_end;

void write_to_terminal(const std::string& text) {
  if (write(STDERR_FILENO, text.data(), text.size()) < 0) return;  // Nobody to tell.
}

/// A line that is written over and over, and wiped out in the end, from a thread of its own.
class ProgressLine {
 public:
  /// `start` is when the work began of which this is a part.
  ProgressLine(std::string what, Clock::time_point start) : what_(std::move(what)), start_(start) {
    // Signals are for the thread that runs the command.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { show(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  ~ProgressLine() {
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      over_ = true;
    }
    ended_.notify_one();
    thread_.join();
  }

 private:
  void show() {
    std::unique_lock<std::mutex> guard(mutex_);
    bool shown = false;
    for (auto next = start_ + kPatience; !ended_.wait_until(guard, next, [this] { return over_; });
         next = Clock::now() + kPatience) {
      const auto seconds = std::chrono::duration<double>(Clock::now() - start_).count();
      char time[32];
      static_cast<void>(std::snprintf(time, sizeof time, "%.1f s", seconds));
      write_to_terminal("\r" + what_ + " " + time + "\x1b[K");
      shown = true;
    }
    if (shown) write_to_terminal("\r\x1b[K");
  }

  const std::string what_;
  const Clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool over_ = false;
  std::thread thread_;
};

/// What a person calls what the command does.
std::string purpose_of(const std::string& command) {
  const auto begins = [&](const char* text) { return command.rfind(text, 0) == 0; };
  if (begins("cd /mnt/main/etc/ ")) return "packing the failover settings";
  if (begins("cd ")) return "packing the configuration";
  if (begins("tar ")) return "unpacking";
  if (begins("cp ")) return "putting the files into place";
  return "cleaning up";
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

/// Commands that follow each other at once are one piece of work to who waits.
Clock::time_point start_of_work() {
  static Clock::time_point start;
  if (Clock::now() - last_end > kPatience) start = Clock::now();
  return start;
}

int run(const std::string& command) {
  std::optional<ProgressLine> progress;
  if (isatty(STDERR_FILENO) == 1) {
    try {
      progress.emplace(purpose_of(command), start_of_work());
    } catch (const std::system_error&) {
      // No thread to be had: the work is done all the same, in silence.
    }
  }
  const int result = run_by_platform(command);
  progress.reset();
  last_end = Clock::now();
  return result;
}

}  // namespace
}  // namespace console

int my_system(const char* pattern, ...) {
  std::va_list arguments;
  va_start(arguments, pattern);
  const auto command = console::format(pattern, arguments);
  va_end(arguments);
  return command ? console::run(*command) : console::kCannotRun;
}
