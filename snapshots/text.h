#pragma once

#include <string>

namespace ConfSave::snapshots {

inline bool begins_with(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

/// The text with control characters escaped, for a message.
std::string printable(const std::string& text);

}  // namespace ConfSave::snapshots
