#pragma once

#include <string>

#include "snapshots/limits.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {

/// Brings the path of an archive's entry into its one form: "./a//b/" becomes "a/b", "." becomes empty.
/// Code::unsafe for a path that leaves the destination or exceeds a limit.
Error normalize(const std::string& stored, const Limits& limits, std::string& path);

/// Whether a relative path is at, or below, an entry of the contents.
inline bool is_covered(const std::string& path, const std::string& entry) {
  if (entry.back() == '*') return begins_with(path, entry.substr(0, entry.size() - 1));
  return path == entry || begins_with(path, entry + "/");
}

}  // namespace ConfSave::snapshots
