#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace console {

/// A line on standard error, at a terminal, that a thread of its own rewrites while work goes on, and
/// erases at the end.
class ProgressLine {
 public:
  explicit ProgressLine(std::string what);
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  ~ProgressLine() { end(); }

  /// What the work is now.
  void say(const std::string& what);

  /// Erases the line.
  void end();

 private:
  void show();

  std::string what_;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool over_ = false;
  std::thread thread_;
};

}  // namespace console
