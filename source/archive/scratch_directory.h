#pragma once

#include <string>

namespace ConfSave {

/// A scratch directory: inside the destination of a restore, so that its files can be linked into place.
/// Mode 0700 under any umask. Removed with its contents on destruction, where the command that removes it
/// did not run or failed.
class ScratchDirectory {
 public:
  /// `parent` is the destination. Logs and throws XTOOStatus with status_mkdtemp on failure.
  explicit ScratchDirectory(const std::string& parent);
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory();

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace ConfSave
