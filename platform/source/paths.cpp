#include "kelmor/paths.h"

#include <cstdlib>
#include <utility>

namespace toolsunix {
namespace {

/// The variable's value, or `fallback` if it is unset or empty. Read at every call: a host may change it.
std::string place(const char* variable, const char* fallback) {
  const char* value = secure_getenv(variable);
  return value != nullptr && *value != '\0' ? value : fallback;
}

/// Keeps "/" itself.
std::string without_trailing_slash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

/// Only number 1 is in use. Another one is another directory, so that a wrong number is noticed.
std::string numbered(std::string path, int id) {
  return id == 1 ? path : std::move(path) + "-unassigned-" + std::to_string(id);
}

}  // namespace

FilenameConvertor& FilenameConvertor::Instance() {
  static FilenameConvertor instance;
  return instance;
}

std::string FilenameConvertor::GetKelmorConfigPath() const {
  std::string path = place("KELMOR_CONFIG_PATH", "/etc/kelmor/");
  if (path.back() != '/') path += '/';
  return path;
}

std::string FilenameConvertor::GetFullDynamicDirName(path::DynamicDirectoryId id) const {
  return numbered(without_trailing_slash(place("KELMOR_DYNAMIC_DIR", "/var/lib/kelmor")), id);
}

std::string FilenameConvertor::GetFullDirName(path::DirectoryId id) const {
  return numbered(without_trailing_slash(place("KELMOR_TEMP_DIR", "/var/lib/kelmor/tmp")), id);
}

std::string FilenameConvertor::GetShortFilename(FileId id) const {
  switch (static_cast<int>(id)) {
    case 1:
      return "gateway.conf";
    case 4:
      return "gateway.key";
    case 9:
      return "interfaces.conf";
    case 10:
      return "routes.conf";
    case 11:
      return "filter.conf";
    case 12:
      return "nat.conf";
    case 17:
      return "services.conf";
    case 18:
      return "users.conf";
    case 19:
      return "schedule.conf";
    case 20:
      return "notify.conf";
    case 29:
      return "config.db-journal";
    case 30:
      return "config.db";
    case 31:
      return "config.idx";
    default:
      // Never empty: with an empty name all of "user/" would be packed.
      return "unassigned-" + std::to_string(static_cast<int>(id));
  }
}

}  // namespace toolsunix
