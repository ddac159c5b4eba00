#pragma once

// The program's my_system() comes before the platform's. It shows progress at a terminal, notes why a
// command failed, and leaves the running to the platform.

#include <optional>
#include <string>

namespace console {

/// What is known about a failed command. Its own messages go to /dev/null.
struct FailedCommand {
  std::string program;   ///< "tar", "cp" or "rm"
  std::string action;    ///< "unpacking below '/etc/kelmor'"
  std::string ending;    ///< "tar: exit status 2"
  std::string obstacle;  ///< obstacle() of the directory that it wrote to, when it ended
};

/// The first command that failed since forget_failed_command().
const std::optional<FailedCommand>& failed_command();

void forget_failed_command();

}  // namespace console
