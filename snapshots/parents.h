#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "snapshots/tree.h"

namespace ConfSave::snapshots {

/// What a directory is made with that members are in and that is missing.
struct Parent {
  std::uint32_t mode = 0;  ///< permission bits, set-uid, set-gid and sticky included
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

/// By absolute path.
using Parents = std::map<std::string, Parent>;

/// The directories that members of `tree` are in and that are no members themselves, as they are now. Those
/// that packing starts from are not among them.
Parents parents_of(const Tree& tree);

}  // namespace ConfSave::snapshots
