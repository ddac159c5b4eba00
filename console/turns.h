#pragma once

#include <algorithm>
#include <chrono>

#include "interrupt.h"
#include "report.h"

namespace console {

/// Calls `attempt` with a wait, until its answer is not Code::busy or `seconds` are over. The library does
/// not notice an interrupt while it waits, so it waits a second at a time. A restore that has begun, and
/// was put back, is not tried again; one that could not be put back is recovered by the next attempt.
template <class Attempt>
auto in_turns(unsigned seconds, Attempt attempt) {
  using Clock = std::chrono::steady_clock;
  using std::chrono::milliseconds;
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
    const auto wait = std::clamp<milliseconds>(left, milliseconds(0), std::chrono::seconds(1));
    auto result = attempt(wait);
    const bool again = !result && result.error().code == cs::Code::busy &&
                       result.error().aftermath != cs::Aftermath::put_back && left > wait;
    if (!again || interrupted()) return result;
  }
}

}  // namespace console
