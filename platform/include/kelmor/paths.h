#pragma once

/// Where the gateway keeps its files. The identifiers are fixed; the platform chooses the paths.

#include <string>

#include "kelmor/status.h"

namespace toolsunix {

/// A configuration file below "user/".
enum FileId : int {};

namespace path {

/// A directory for variable data. 1 is the state directory, which holds "storage.db".
enum DynamicDirectoryId : int {};

/// A fixed directory. 1 is the temporary directory.
enum DirectoryId : int {};

}  // namespace path

/// Returns paths. The results may change from call to call.
class KELMOR_API FilenameConvertor {
 public:
  /// The only object of this class in the process.
  static FilenameConvertor& Instance();

  FilenameConvertor(const FilenameConvertor&) = delete;
  FilenameConvertor& operator=(const FilenameConvertor&) = delete;

  /// The configuration directory, ending in "/".
  std::string GetKelmorConfigPath() const;

  /// The full path of a directory for variable data, without a trailing "/".
  std::string GetFullDynamicDirName(path::DynamicDirectoryId id) const;

  /// The full path of a fixed directory, without a trailing "/".
  std::string GetFullDirName(path::DirectoryId id) const;

  /// The name of a configuration file, relative to "user/" in the configuration directory.
  std::string GetShortFilename(FileId id) const;

 private:
  FilenameConvertor() = default;
};

}  // namespace toolsunix
