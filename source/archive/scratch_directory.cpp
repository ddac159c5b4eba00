#include "archive/scratch_directory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>

#include "archive/pack.h"
#include "log.h"
#include "throw.h"

namespace ConfSave {

ScratchDirectory::ScratchDirectory(const std::string& parent) : path_(parent + "/XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) {
    const int error = errno;
    if (KovrLogHelper record{1, kUnpackTag, kArchiveSource, ""}) {
      record << path_ << ": failed to create temporary directory: " << std::strerror(error);
    }
    throw_text<XTOOStatus>(status_mkdtemp, std::strerror(error));
  }
  // With a tight umask the library could not enter its own directory.
  chmod(path_.c_str(), S_IRWXU);
}

ScratchDirectory::~ScratchDirectory() {
  try {
    std::filesystem::remove_all(path_);
  } catch (const std::exception&) {
    // The failure of the restore itself is already reported.
  }
}

}  // namespace ConfSave
