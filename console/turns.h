#pragma once

#include <algorithm>
#include <chrono>

#include "deadline.h"
#include "interrupt.h"
#include "report.h"

namespace console {

/// Calls `attempt` with a wait, until its answer is not Code::busy or `deadline` is over. The library does
/// not notice an interrupt while it waits, so it waits a second at a time. A restore that has begun, and
/// was put back, is not tried again; one that could not be put back is recovered by the next attempt,
/// unless `is_last` says that there is none.
template <class Attempt, class IsLast>
auto in_turns(const Deadline& deadline, Attempt attempt, IsLast is_last) {
  for (;;) {
    const std::chrono::milliseconds left = deadline.left();
    const auto wait = std::min<std::chrono::milliseconds>(left, std::chrono::seconds(1));
    auto result = attempt(wait);
    const bool again = !result && result.error().code == cs::Code::busy &&
                       result.error().aftermath != cs::Aftermath::put_back && left > wait;
    if (!again || is_last() || interrupted()) return result;
  }
}

template <class Attempt>
auto in_turns(const Deadline& deadline, Attempt attempt) {
  return in_turns(deadline, attempt, [] { return false; });
}

}  // namespace console
