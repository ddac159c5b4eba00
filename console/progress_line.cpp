#include "progress_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <utility>

namespace console {
namespace {

using Clock = std::chrono::steady_clock;

/// The line appears when the work takes this long, and is rewritten as often.
constexpr auto kPatience = std::chrono::milliseconds(500);

/// A longer line would wrap, and stay when it is rewritten. The last column is left free.
std::string cut_to_screen(const std::string& line) {
  winsize size = {};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
  return known ? line.substr(0, size.ws_col - 1U) : line;
}

void write_to_terminal(const std::string& text) {
  if (write(STDERR_FILENO, text.data(), text.size()) < 0) return;  // Progress is not worth a failure.
}

}  // namespace

ProgressLine::ProgressLine(std::string what) : what_(std::move(what)) {
  if (isatty(STDERR_FILENO) == 0) return;
  // Signals are for the thread that works.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread([this] { show(); });
  } catch (const std::system_error&) {
    // No thread to be had: the work goes on in silence.
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void ProgressLine::say(const std::string& what) {
  const std::lock_guard<std::mutex> lock(mutex_);
  what_ = what;
}

void ProgressLine::end() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    over_ = true;
  }
  ended_.notify_one();
  thread_.join();
}

void ProgressLine::show() {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto start = Clock::now();
  bool shown = false;
  while (!ended_.wait_until(lock, Clock::now() + kPatience, [this] { return over_; })) {
    const auto seconds = std::chrono::duration<double>(Clock::now() - start).count();
    char time[32];
    static_cast<void>(std::snprintf(time, sizeof time, "%.1f s", seconds));
    write_to_terminal("\r" + cut_to_screen(what_ + " " + time) + "\x1b[K");
    shown = true;
  }
  if (shown) write_to_terminal("\r\x1b[K");
}

}  // namespace console
