#include "places.h"

#include <kelmor/paths.h>

#include <cstdlib>

namespace console {

std::string configuration_directory() {
  return toolsunix::FilenameConvertor::Instance().GetKelmorConfigPath();
}

std::string state_directory() {
  return toolsunix::FilenameConvertor::Instance().GetFullDynamicDirName(
      toolsunix::path::DynamicDirectoryId{1});
}

std::string temporary_directory() {
  return toolsunix::FilenameConvertor::Instance().GetFullDirName(toolsunix::path::DirectoryId{1});
}

std::string storage_file() { return state_directory() + "/storage.db"; }

std::string log_file() {
  const char* file = secure_getenv("KELMOR_LOG_FILE");
  return file != nullptr && *file != '\0' ? file : "/var/log/kelmor.log";
}

}  // namespace console
