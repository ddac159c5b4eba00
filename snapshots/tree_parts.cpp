// What of the two directories belongs to a configuration.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "snapshots/access.h"
#include "snapshots/member_collector.h"
#include "snapshots/tree.h"

namespace ConfSave::snapshots {
namespace {

bool has_database() {
  const std::vector<std::string> files = packed_database_files(directory_of(Base::configuration));
  return std::all_of(files.begin(), files.end(),
                     [](const std::string& file) { return may_access(file, F_OK); });
}

std::vector<std::string> paths_of(Base base, conftype type, bool with_database) {
  std::vector<std::string> paths;
  for (const ContentsEntry& entry : contents()) {
    const bool left_out = entry.holds == Holds::database && !with_database;
    if (entry.base == base && belongs_to(entry, type) && !left_out) paths.push_back(entry.path);
  }
  return paths;
}

}  // namespace

std::vector<TreePart> parts_of(conftype type) {
  const bool with_database = has_database();
  std::vector<TreePart> parts;
  for (const Base base : {Base::configuration, Base::failover}) {
    parts.push_back({base, directory_of(base), paths_of(base, type, with_database), {}, Secrets(base)});
  }
  return parts;
}

}  // namespace ConfSave::snapshots
