#include "snapshots/leftovers.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <set>

#include "places.h"
#include "snapshots/descriptor.h"
#include "snapshots/journal.h"
#include "snapshots/lock.h"
#include "snapshots/text.h"

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

bool is_staging_name(const std::string& name) {
  const std::string prefix = ".confsave-restore-";
  constexpr std::size_t kDigits = 16;
  return name.size() == prefix.size() + kDigits && begins_with(name, prefix) &&
         name.find_first_not_of("0123456789abcdef", prefix.size()) == std::string::npos;
}

/// The names of the staging directories that the journal knows: no two are the same, wherever they are. No
/// value if it cannot be read: a recovery may need every one that is there.
std::optional<std::set<std::string>> known_staging(const Deadline& deadline) {
  std::set<std::string> known;
  Result<std::optional<Journal>> journal = Journal::open(deadline.left());
  if (!journal) return {};
  if (!*journal) return known;
  const Result<std::optional<Record>> record = (*journal)->read();
  if (!record) return {};
  if (!*record) return known;
  for (const Root& root : (*record)->roots) known.insert(root.staging);
  return known;
}

/// Appends the entries of `directory` of this kind and mode. A directory that cannot be read has none.
void look_in(std::string directory, mode_t kind_and_mode, bool (*is_name)(const std::string&),
             std::vector<std::string>& found) {
  if (directory.empty() || directory.back() != '/') directory += '/';
  const Directory opened(opendir(directory.c_str()));
  if (opened == nullptr) return;
  while (const dirent* entry = readdir(opened.get())) {
    if (!is_name(entry->d_name)) continue;
    struct stat status = {};
    if (lstat((directory + entry->d_name).c_str(), &status) != 0) continue;
    const bool is_ours = status.st_uid == geteuid() || status.st_uid == 0;
    if (status.st_mode == kind_and_mode && is_ours) found.push_back(directory + entry->d_name);
  }
}

}  // namespace

std::vector<std::string> leftovers(const Deadline& deadline) {
  std::vector<std::string> found;
  if (Lock::is_taken()) return found;
  const std::optional<std::set<std::string>> known = known_staging(deadline);
  for (const std::string& destination : {config_directory(), std::string(kFailoverDirectory)}) {
    look_in(destination, S_IFDIR | S_IRWXU, is_made_name, found);
    if (known) look_in(destination, S_IFDIR | S_IRWXU, is_staging_name, found);
  }
  look_in(temporary_directory(), S_IFREG | S_IRUSR | S_IWUSR, is_made_name, found);
  if (known) {
    const auto is_known = [&known](const std::string& path) {
      return known->count(path.substr(path.rfind('/') + 1)) != 0;
    };
    found.erase(std::remove_if(found.begin(), found.end(), is_known), found.end());
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace ConfSave::snapshots
