#include "snapshots/identity.h"

#include "snapshots/stamp.h"

namespace ConfSave::snapshots {

Identity identity_of(const struct stat& status) {
  const Stamp stamp = stamp_of(status);
  return {stamp.inode, stamp.size, stamp.modified, status.st_mode & S_IFMT};
}

bool is_same_file(const Identity& a, const Identity& b) {
  return a.exists() && a.inode == b.inode && a.kind == b.kind;
}

bool is_unchanged(const Identity& a, const Identity& b) {
  return is_same_file(a, b) && (S_ISDIR(a.kind) || (a.size == b.size && a.modified == b.modified));
}

}  // namespace ConfSave::snapshots
