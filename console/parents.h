#pragma once

#include <string>
#include <vector>

namespace console {

/// The directories that no archive has an entry for: a restore gives them the mode of the umask and the
/// owner of this process. This one puts back what they had before. // Quirk Q61
class ParentDirectories {
 public:
  /// `destination` ends in "/"; empty for the configuration directory.
  explicit ParentDirectories(const std::string& destination);
  ParentDirectories(const ParentDirectories&) = delete;
  ParentDirectories& operator=(const ParentDirectories&) = delete;

  /// Tells what cannot be put back.
  ~ParentDirectories();

 private:
  struct Kept;

  std::vector<Kept> kept_;
};

}  // namespace console
