#include "pending_text.h"

#include <algorithm>
#include <ctime>

#include "text.h"

namespace console {
namespace {

/// For example "in 9 min 30 s".
std::string in_words(ConfSave::int64 seconds) {
  constexpr ConfSave::int64 kMinute = 60;
  constexpr ConfSave::int64 kHour = 3600;
  std::string text = "in";
  if (seconds >= kHour) text += " " + std::to_string(seconds / kHour) + " h";
  if (seconds % kHour >= kMinute) text += " " + std::to_string(seconds % kHour / kMinute) + " min";
  if (seconds < kHour && seconds % kMinute != 0) text += " " + std::to_string(seconds % kMinute) + " s";
  return seconds > 0 ? text : "now";
}

/// With the seconds: a window may be as short as ten of them.
std::string moment(std::time_t deadline, ConfSave::int64 left) {
  return local_time(deadline) + " (" + in_words(left) + ")";
}

}  // namespace

std::string text_of(const cs::Pending& pending) {
  const std::string restore = "the restore of '" + label(pending.name, pending.version) + "'";
  if (pending.is_checked) return restore + " waits for its check";
  if (pending.seconds_left == 0) return restore + " was not confirmed in time, and is to be taken back";
  return restore + " is taken back at " + moment(pending.deadline, pending.seconds_left) +
         " unless 'confsave confirm' keeps it";
}

std::string paragraph_of(const cs::Restored& restored, unsigned window) {
  // The deadline is rounded up, and the present time down.
  const ConfSave::int64 left = std::min<ConfSave::int64>(restored.deadline - std::time(nullptr), window);
  return "This restore is pending. The files of before come back at " + moment(restored.deadline, left) +
         ",\nand at a restart before that, unless you run 'confsave confirm'.\n"
         "'confsave revert' takes the restore back at once; 'confsave status' shows the time that is "
         "left.\n";
}

}  // namespace console
