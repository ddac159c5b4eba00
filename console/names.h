#pragma once

// What may reach the library's statements and command lines, and what may reach a terminal. The checks
// tell on standard error what is wrong.

#include <string>

namespace console {

/// `text` with everything that is not a printable ASCII character as "\xNN".
std::string printable(const std::string& text);

/// True for 1 to 80 characters of ConfSave::VALID_NAME_CHARS. Tells nothing.
bool is_name(const std::string& text);

bool check_name(const std::string& name);

/// A name in which * ? [ ] may stand too.
bool check_pattern(const std::string& pattern);

/// An absolute path of an existing directory, of characters that a shell leaves alone. Adds the "/" at
/// its end that the library needs.
bool check_target(std::string& target);

/// The directories that the platform names get into command lines too, and must be there.
bool check_directories();

}  // namespace console
