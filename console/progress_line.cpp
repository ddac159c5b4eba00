#include "progress_line.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <utility>

namespace console {
namespace {

void write_to_terminal(const std::string& text) {
  if (write(STDERR_FILENO, text.data(), text.size()) < 0) return;  // Progress is not worth a failure.
}

}  // namespace

ProgressLine::ProgressLine(std::string what, Clock::time_point start)
    : what_(std::move(what)), start_(start) {
  // Signals are for the thread that runs the command.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread([this] { show(); });
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

ProgressLine::~ProgressLine() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    over_ = true;
  }
  ended_.notify_one();
  thread_.join();
}

void ProgressLine::show() {
  std::unique_lock<std::mutex> lock(mutex_);
  bool shown = false;
  for (auto next = start_ + kPatience; !ended_.wait_until(lock, next, [this] { return over_; });
       next = Clock::now() + kPatience) {
    const auto seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    char time[32];
    static_cast<void>(std::snprintf(time, sizeof time, "%.1f s", seconds));
    write_to_terminal("\r" + what_ + " " + time + "\x1b[K");
    shown = true;
  }
  if (shown) write_to_terminal("\r\x1b[K");
}

}  // namespace console
