#pragma once

// What the guarded operations and the commands say and ask alike.

#include <string>

namespace ConfSave {

/// What the user knows the gateway as.
constexpr const char* kProduct = "Kelmor";

/// One line of the input, without its line feed; empty at the end of input. What was asked is flushed
/// first, so that it is on the screen in any host.
std::string read_line();

/// Asks under which name the current configuration is to be saved.
std::string ask_name_for_current();

/// Demands the phrase that says that the current configuration may be lost. Throws XCancel unless it is
/// typed to the letter.
void demand_phrase();

}  // namespace ConfSave
