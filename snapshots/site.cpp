#include "snapshots/site.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "snapshots/text.h"

namespace ConfSave::snapshots {

Result<std::vector<Site>> open_sites(const std::vector<Root>& roots, Need need) {
  std::vector<Site> sites;
  for (const Root& root : roots) {
    const auto unknown = [&root](int number, const std::string& why) {
      return Error{Code::needs_attention, number, printable(root.path),
                   why + "; is its file system mounted? Then run 'confsave recover'"};
    };
    Result<Beneath> beneath = Beneath::open(root.path);
    const bool is_known = beneath && beneath->status().st_ino == root.inode;
    if (!is_known && need == Need::nothing) {
      sites.emplace_back();
      continue;
    }
    if (!beneath) return unknown(beneath.error().number, beneath.error().text);
    if (!is_known) return unknown(0, "this is not the directory that was restored into");
    Site site{std::move(*beneath), root.staging, Descriptor()};
    site.staging = Descriptor(
        openat(site.beneath.root(), site.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!site.staging && errno != ENOENT) return site.beneath.failure(site.name, errno);
    // The roots of many file systems have the same inode number.
    if (!site.staging && need == Need::old_files) {
      return unknown(0, "its directory '" + site.name + "', which has the old files, is missing");
    }
    sites.push_back(std::move(site));
  }
  return sites;
}

Error sync_destinations(const std::vector<std::string>& directories, const std::vector<Site>& sites) {
  std::set<dev_t> synced;
  const auto sync = [&synced](const Beneath& directory) {
    const bool done = !synced.insert(directory.status().st_dev).second || syncfs(directory.root()) == 0;
    return done ? Error{} : directory.failure("", errno);
  };
  // Through a descriptor that was opened before the writes, a failure of theirs is not missed.
  for (const Site& site : sites) {
    if (Error error = sync(site.beneath); error.code != Code::ok) return error;
  }
  for (const std::string& path : directories) {
    const Result<Beneath> directory = Beneath::open(path);
    if (!directory && directory.error().number == ENOENT) continue;
    if (!directory) return directory.error();
    if (Error error = sync(*directory); error.code != Code::ok) return error;
  }
  return {};
}

Error no_lasting_inode(const std::string& path) {
  return {Code::failed, 0, path,
          "the layers of this overlay have inode numbers of their own; it has to be mounted with xino=on"};
}

void warn_of_other_directories(const std::vector<Root>& roots, const std::vector<Site>& sites,
                               std::vector<std::string>& warnings) {
  for (std::size_t number = 0; number < sites.size(); ++number) {
    if (!sites[number].name.empty()) continue;
    warnings.push_back(printable(roots[number].path) +
                       ": this is not the directory that was restored into; if '" + roots[number].staging +
                       "' is in it some day, delete that");
  }
}

}  // namespace ConfSave::snapshots
