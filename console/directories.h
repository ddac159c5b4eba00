#pragma once

// Which directories may reach the library's command lines. The checks print on standard error what is
// wrong.

#include <string>

namespace console {

/// `target` must be an absolute path of an existing directory, of characters that a shell gives no meaning
/// to. Appends the "/" that the library needs.
bool check_target(std::string& target);

/// The same for the directories that the platform names.
bool check_directories();

}  // namespace console
