#pragma once

#include <sys/stat.h>

#include <utility>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// What changes whenever the content of a file does. Times are in nanoseconds since the epoch.
struct Stamp {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  int64 size = 0;
  int64 modified = 0;
  int64 changed = 0;  ///< of the inode; only the clock sets it
};

/// Device and number: each file system numbers its own.
using Inode = std::pair<std::uint64_t, std::uint64_t>;

inline Inode inode_of(const Stamp& stamp) { return {stamp.device, stamp.inode}; }

Stamp stamp_of(const struct stat& status);

bool is_same(const Stamp& a, const Stamp& b);

/// The time, as stamps have it.
int64 now();

}  // namespace ConfSave::snapshots
