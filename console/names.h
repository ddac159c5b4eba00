#pragma once

// Which names may reach the library's statements. The checks print on standard error what is wrong.

#include <string>

namespace console {

/// True for 1 to 80 characters of ConfSave::VALID_NAME_CHARS. Prints nothing.
bool is_name(const std::string& text);

bool check_name(const std::string& name);

/// A pattern is a name in which * ? [ ] may stand too.
bool check_pattern(const std::string& pattern);

}  // namespace console
