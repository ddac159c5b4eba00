#pragma once

#include <string>

#include "confsave/snapshots.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {

/// What a warning says about an error.
inline std::string sentence(const Error& error) {
  return error.path.empty() ? error.text : error.path + ": " + error.text;
}

/// A name or a path, in a sentence.
inline std::string quoted(const std::string& text) { return "'" + printable(text) + "'"; }

}  // namespace ConfSave::snapshots
