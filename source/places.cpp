#include "places.h"

#include "kelmor/paths.h"

namespace ConfSave {
namespace {

using toolsunix::FilenameConvertor;

constexpr toolsunix::path::DynamicDirectoryId kState{1};
constexpr toolsunix::path::DirectoryId kTemporary{1};

}  // namespace

std::string config_directory() { return FilenameConvertor::Instance().GetKelmorConfigPath(); }

std::string state_directory() { return FilenameConvertor::Instance().GetFullDynamicDirName(kState); }

std::string storage_file() { return state_directory() + "/storage.db"; }

std::string temporary_directory() { return FilenameConvertor::Instance().GetFullDirName(kTemporary); }

std::string user_file(int id) {
  return FilenameConvertor::Instance().GetShortFilename(toolsunix::FileId{id});
}

}  // namespace ConfSave
