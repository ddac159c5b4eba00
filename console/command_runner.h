#pragma once

// The program's my_system() comes before the platform's. It notes how a command ended, and leaves the
// running to the platform.

#include <string>

namespace console {

/// How the first command ended that failed since forget_failed_command(): "exit status 2". Empty if none
/// failed. Its own messages go to /dev/null.
const std::string& failed_command();

void forget_failed_command();

}  // namespace console
