#include "snapshots/missing.h"

#include "snapshots/access.h"
#include "snapshots/member_collector.h"

namespace ConfSave::snapshots {

std::set<std::string> absent_fixed_paths(conftype type, const std::set<std::string>& present) {
  std::set<std::string> absent;
  for (const ContentsEntry& entry : contents()) {
    if (!belongs_to(entry, type) || entry.path.back() == '*') continue;
    const std::string path = directory_of(entry.base) + entry.path;
    if (present.count(path) == 0) absent.insert(path);
  }
  return absent;
}

std::set<std::string> database_remains(const std::set<std::string>& present) {
  std::set<std::string> remains;
  for (const std::string& path : packed_database_files(directory_of(Base::configuration))) {
    if (present.count(path) == 0 && exists(path)) remains.insert(path);
  }
  return remains;
}

}  // namespace ConfSave::snapshots
