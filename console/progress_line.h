#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace console {

/// A line on standard error that a thread of its own rewrites while work goes on, and erases at the end.
class ProgressLine {
 public:
  using Clock = std::chrono::steady_clock;

  /// The line appears when the work takes this long, and is rewritten as often.
  static constexpr auto kPatience = std::chrono::milliseconds(500);

  /// `start` is when the work began of which this is a part. Throws std::system_error when there is no
  /// thread to be had.
  ProgressLine(std::string what, Clock::time_point start);
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  ~ProgressLine();

 private:
  void show();

  const std::string what_;
  const Clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool over_ = false;
  std::thread thread_;
};

}  // namespace console
