#pragma once

#include <chrono>
#include <string>

namespace console {

/// A check that takes longer has failed.
constexpr std::chrono::seconds kCheckLimit{60};

/// Runs a command by the shell, in a process group of its own, without input; what it writes goes to
/// standard error. False unless it ends with exit status 0 within kCheckLimit and before an interrupt: the
/// reason is printed, and what is left of its group is ended by SIGTERM, and after 5 seconds by SIGKILL.
bool run_check(const std::string& command);

}  // namespace console
