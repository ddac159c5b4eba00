#pragma once

// The values of operands and options. Each function throws CLI::ValidationError with a sentence that says
// what is wrong.

#include <confsave.h>

#include <string>

#include "options.h"

namespace console {

/// "4.5.4", a packed number, or "none", which is 0.
ConfSave::int64 parse_version(const std::string& text);

/// The text that parse_version() converts back: the packed number where the short form would lose bits.
std::string version_text(ConfSave::int64 version);

/// NAME or NAME@VERSION.
Selection parse_selection(const std::string& text);

/// The same, where no name would mean every one.
Selection parse_one(const std::string& text);

unsigned parse_number(const std::string& text, unsigned least);

/// Seconds: "90s", "10m" or "2h", as long as a restore may wait for its confirmation.
unsigned parse_time(const std::string& text);

ConfSave::conftype parse_type(const std::string& text);

/// One of the keys of list.
std::string parse_sort(const std::string& text);

/// A directory; its path is not empty.
std::string parse_directory(const std::string& text);

/// A command line, which is not empty.
std::string parse_command(const std::string& text);

/// The path of a member, which is absolute.
std::string parse_member(const std::string& text);

}  // namespace console
