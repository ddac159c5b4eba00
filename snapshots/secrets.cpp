#include "snapshots/secrets.h"

#include <algorithm>

#include "snapshots/text.h"

namespace ConfSave::snapshots {
Secrets::Secrets(Base base) {
  for (const ContentsEntry& entry : contents()) {
    if (entry.base != base || entry.holds != Holds::keys) continue;
    if (entry.path.back() == '*') {
      prefixes_.push_back(entry.path.substr(0, entry.path.size() - 1));
    } else {
      paths_.push_back(entry.path);
    }
  }
}

bool Secrets::contains(const std::string& path) const {
  return std::any_of(prefixes_.begin(), prefixes_.end(),
                     [&path](const std::string& prefix) { return begins_with(path, prefix); }) ||
         std::any_of(paths_.begin(), paths_.end(), [&path](const std::string& secret) {
           return path == secret || begins_with(path, secret + "/");
         });
}

}  // namespace ConfSave::snapshots
