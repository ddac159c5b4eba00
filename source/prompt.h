#pragma once

// The questions that the checked operations and the App functions share.

#include <string>

namespace ConfSave {

/// The name of the gateway in messages.
constexpr const char* kProduct = "Kelmor";

/// Reads one line of standard input, without its line feed; empty at the end of input. Flushes standard
/// output first, so that the question is visible in any host.
std::string read_line();

/// Asks for a name under which the current configuration will be saved.
std::string ask_name_for_current();

/// Asks for the phrase that permits overwriting the current configuration. Throws XCancel unless the answer
/// matches exactly.
void demand_phrase();

}  // namespace ConfSave
