#pragma once

#include <algorithm>
#include <chrono>

namespace console {

/// How long a verb still waits for other programs. All its waits share it.
class Deadline {
 public:
  explicit Deadline(unsigned seconds) : end_(Clock::now() + std::chrono::seconds(seconds)) {}

  bool operator<(const Deadline& other) const { return end_ < other.end_; }

  /// 0 when it is over.
  std::chrono::milliseconds left() const {
    using std::chrono::milliseconds;
    return std::max(std::chrono::ceil<milliseconds>(end_ - Clock::now()), milliseconds(0));
  }

 private:
  using Clock = std::chrono::steady_clock;

  Clock::time_point end_;
};

}  // namespace console
