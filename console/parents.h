#pragma once

#include <string>
#include <vector>

namespace console {

/// Keeps the mode and owner of the directories that no archive has an entry for, and sets them again at its
/// end: a restore gives them the mode of the umask and the owner of this process. // Quirk Q61
class ParentDirectories {
 public:
  /// `destination` ends in "/"; empty for the configuration directory.
  explicit ParentDirectories(const std::string& destination);
  ParentDirectories(const ParentDirectories&) = delete;
  ParentDirectories& operator=(const ParentDirectories&) = delete;

  /// Prints what cannot be set again.
  ~ParentDirectories();

 private:
  struct Kept;

  std::vector<Kept> kept_;
};

}  // namespace console
