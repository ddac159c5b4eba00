#pragma once

#include <algorithm>
#include <chrono>

namespace ConfSave::snapshots {

/// So long a call may still wait for locks after a step that it cannot take back.
constexpr std::chrono::milliseconds kGrace{2000};

/// The end of all waiting within one call, by a clock that nobody sets.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  /// Less than nothing counts as nothing, and more than a week as a week.
  explicit Deadline(std::chrono::milliseconds wait)
      : end_(Clock::now() + std::clamp<std::chrono::milliseconds>(wait, std::chrono::milliseconds(0),
                                                                  std::chrono::hours(24 * 7))) {}

  /// What is left, never less than nothing.
  std::chrono::milliseconds left() const {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end_ - Clock::now());
    return std::max(left, std::chrono::milliseconds(0));
  }

  /// What is left, but at least kGrace: the work before has taken time as well.
  std::chrono::milliseconds left_afterwards() const { return std::max(left(), kGrace); }

 private:
  Clock::time_point end_;
};

}  // namespace ConfSave::snapshots
