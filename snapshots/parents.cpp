#include "snapshots/parents.h"

#include <sys/stat.h>

#include <set>

#include "snapshots/member_collector.h"

namespace ConfSave::snapshots {

Parents parents_of(const Tree& tree) {
  Parents parents;
  std::set<std::string> seen{directory_of(Base::configuration), directory_of(Base::failover)};
  for (const auto& [path, live] : tree.members) {
    std::size_t slash = path.rfind('/');
    while (slash != std::string::npos && seen.insert(path.substr(0, slash + 1)).second) {
      const std::string parent = path.substr(0, slash);
      struct stat status = {};
      const bool is_parent = tree.members.count(parent) == 0 && lstat(parent.c_str(), &status) == 0;
      if (is_parent && S_ISDIR(status.st_mode)) {
        parents[parent] = {status.st_mode & 07777U, status.st_uid, status.st_gid};
      }
      slash = slash == 0 ? std::string::npos : path.rfind('/', slash - 1);
    }
  }
  return parents;
}

}  // namespace ConfSave::snapshots
