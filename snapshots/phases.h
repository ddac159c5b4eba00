#pragma once

#include <chrono>
#include <string>

namespace ConfSave::snapshots {

/// Measures the parts of an operation, one after another, and logs them at level 4 when the operation ends:
/// "restore: lock 0.1, recover 0.4, plan 6.2 ms".
class Phases {
 public:
  explicit Phases(const char* operation);
  Phases(const Phases&) = delete;
  Phases& operator=(const Phases&) = delete;
  ~Phases();

  /// What began with the operation, or with the end of the part before, ends here.
  void end(const char* name);

 private:
  using Clock = std::chrono::steady_clock;

  bool is_logged_;
  std::string text_;
  Clock::time_point begin_;
};

}  // namespace ConfSave::snapshots
