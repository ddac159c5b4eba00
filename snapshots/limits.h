#pragma once

#include <cstddef>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// What an archive may hold. No configuration comes near; an archive that exceeds one is hostile or
/// damaged.
struct Limits {
  int64 members = 250000;
  std::size_t path = 4096;          ///< bytes
  std::size_t depth = 64;           ///< directories in a path
  std::size_t paths = 64 << 20;     ///< bytes of all paths, and of the path of each directory in them
  int64 unpacked = int64{4} << 30;  ///< bytes
  int64 ratio = 250;                ///< of unpacked to packed bytes, beyond `free`
  int64 free = int64{64} << 20;     ///< bytes that are not compared with the packed ones
};

}  // namespace ConfSave::snapshots
