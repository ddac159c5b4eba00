#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// Which file something is. Nothing is there if `inode` is 0. Inodes are of the file system of the
/// directory that is restored into: the number of a device changes from one boot to the next.
struct Identity {
  std::uint64_t inode = 0;
  int64 size = 0;
  int64 modified = 0;      ///< nanoseconds since the epoch
  std::uint32_t kind = 0;  ///< the S_IFMT bits

  bool exists() const { return inode != 0; }
};

Identity identity_of(const struct stat& status);

/// The same file, whatever its content.
bool is_same_file(const Identity& a, const Identity& b);
/// The same file with the same content, as far as its size and time can say; of a directory the same one.
bool is_unchanged(const Identity& a, const Identity& b);

}  // namespace ConfSave::snapshots
