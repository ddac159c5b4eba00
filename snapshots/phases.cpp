#include "snapshots/phases.h"

#include "log.h"

namespace ConfSave::snapshots {
namespace {

constexpr int kDetails = 4;
const ClUnilogFname kLog{"ConfSave::snapshots::Phases::~Phases()", "~Phases"};

bool is_level_reached() {
  const KorvLogProps* log = KorvLog_GetProps_cl_module(0);
  return log != nullptr && log->level >= kDetails;
}

/// With two decimals, and a point whatever the locale.
std::string milliseconds(std::chrono::nanoseconds time) {
  constexpr int kNanosecondsInHundredth = 10000;
  const auto hundredths = time.count() / kNanosecondsInHundredth;
  const std::string decimals = std::to_string(100 + hundredths % 100).substr(1);
  return std::to_string(hundredths / 100) + "." + decimals;
}

}  // namespace

Phases::Phases(const char* operation) : is_logged_(is_level_reached()) {
  if (!is_logged_) return;
  text_ = operation;
  begin_ = Clock::now();
}

Phases::~Phases() {
  if (!is_logged_) return;
  try {
    log_text(kDetails, kLog, "snapshots/phases", (text_ + " ms").c_str());
  } catch (...) {
    // A log that cannot be written must not end an operation that is done.
  }
}

void Phases::end(const char* name) {
  if (!is_logged_) return;
  const auto now = Clock::now();
  text_.append(text_.find(':') == std::string::npos ? ": " : ", ").append(name).append(" ");
  text_ += milliseconds(now - begin_);
  begin_ = now;
}

}  // namespace ConfSave::snapshots
