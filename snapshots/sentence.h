#pragma once

#include <string>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// What a warning says about an error.
inline std::string sentence(const Error& error) {
  return error.path.empty() ? error.text : error.path + ": " + error.text;
}

}  // namespace ConfSave::snapshots
