#pragma once

#include <kelmor/status.h>

#include <string>

namespace console {

/// `text` with every byte that is not a printable ASCII character as "\xNN".
std::string printable(const std::string& text);

/// Why the library failed: the text of `error`, or what its status stands for when it has no text.
std::string reason(const XTOOStatus& error);

}  // namespace console
