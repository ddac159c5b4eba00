#pragma once

#include <string>
#include <vector>

#include "contents.h"

namespace ConfSave::snapshots {

/// Knows which paths hold keys: those that the contents say, and everything below them. Made in the thread
/// of the caller: the contents ask the platform.
class Secrets {
 public:
  explicit Secrets(Base base);

  bool contains(const std::string& path) const;

 private:
  std::vector<std::string> prefixes_;  ///< of names that a pattern matches
  std::vector<std::string> paths_;
};

}  // namespace ConfSave::snapshots
