#include "snapshots/stamp.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace ConfSave::snapshots {
namespace {

/// A time that does not fit, beyond the year 2262, counts as the last one that does.
int64 nanoseconds(const timespec& time) {
  constexpr int64 kSecond = 1000000000;
  constexpr int64 kLast = std::numeric_limits<int64>::max() / kSecond - 4;
  return std::clamp<int64>(time.tv_sec, -kLast, kLast) * kSecond + time.tv_nsec;
}

}  // namespace

Stamp stamp_of(const struct stat& status) {
  return {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
          nanoseconds(status.st_ctim)};
}

bool is_same(const Stamp& a, const Stamp& b) {
  return a.device == b.device && a.inode == b.inode && a.size == b.size && a.modified == b.modified &&
         a.changed == b.changed;
}

int64 now() {
  timespec time = {};
  clock_gettime(CLOCK_REALTIME, &time);
  return nanoseconds(time);
}

}  // namespace ConfSave::snapshots
