#include "snapshots/leftovers.h"

#include <sys/stat.h>

#include <algorithm>

#include "places.h"
#include "snapshots/descriptor.h"
#include "snapshots/lock.h"

namespace ConfSave::snapshots {
namespace {

bool is_made_name(const std::string& name) {
  const auto has = [&name](const char* letters) {
    return name.find_first_of(letters) != std::string::npos;
  };
  const char* const letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  return name.size() == 6 && name.find_first_not_of(letters) == std::string::npos &&
         has("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789");
}

/// Appends the entries of `directory` of this kind and mode. A directory that cannot be read has none.
void look_in(std::string directory, mode_t kind_and_mode, std::vector<std::string>& found) {
  if (directory.empty() || directory.back() != '/') directory += '/';
  const Directory opened(opendir(directory.c_str()));
  if (opened == nullptr) return;
  while (const dirent* entry = readdir(opened.get())) {
    if (!is_made_name(entry->d_name)) continue;
    struct stat status = {};
    if (lstat((directory + entry->d_name).c_str(), &status) != 0) continue;
    const bool is_ours = status.st_uid == geteuid() || status.st_uid == 0;
    if (status.st_mode == kind_and_mode && is_ours) found.push_back(directory + entry->d_name);
  }
}

}  // namespace

std::vector<std::string> leftovers() {
  std::vector<std::string> found;
  if (Lock::is_taken()) return found;
  look_in(config_directory(), S_IFDIR | S_IRWXU, found);
  look_in(kFailoverDirectory, S_IFDIR | S_IRWXU, found);
  look_in(temporary_directory(), S_IFREG | S_IRUSR | S_IWUSR, found);
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace ConfSave::snapshots
