#include "parents.h"

#include <sys/stat.h>
#include <unistd.h>

#include <iostream>

#include "places.h"
#include "text.h"

namespace console {
namespace {

constexpr mode_t kModeBits = S_ISUID | S_ISGID | S_ISVTX | S_IRWXU | S_IRWXG | S_IRWXO;

bool is_same(const struct stat& a, const struct stat& b) {
  return a.st_mode == b.st_mode && a.st_uid == b.st_uid && a.st_gid == b.st_gid;
}

/// The owner first: a change of the owner clears the special bits of the mode.
bool put_back(const std::string& path, const struct stat& before) {
  struct stat now = {};
  if (lstat(path.c_str(), &now) != 0 || !S_ISDIR(now.st_mode)) return false;
  if (is_same(now, before)) return true;
  const bool owned = lchown(path.c_str(), before.st_uid, before.st_gid) == 0;
  return chmod(path.c_str(), before.st_mode & kModeBits) == 0 && owned;
}

}  // namespace

/// The text is made early, so that the destructor allocates nothing.
struct ParentDirectories::Kept {
  std::string path;
  std::string printable_path;
  struct stat status;
};

ParentDirectories::ParentDirectories(const std::string& destination) {
  const std::string directory = destination.empty() ? configuration_directory() : destination;
  for (const char* name : {"user", "hub"}) {
    Kept kept = {directory + name, printable(directory + name), {}};
    if (lstat(kept.path.c_str(), &kept.status) == 0 && S_ISDIR(kept.status.st_mode)) {
      kept_.push_back(kept);
    }
  }
}

ParentDirectories::~ParentDirectories() {
  for (const Kept& kept : kept_) {
    if (put_back(kept.path, kept.status)) continue;
    std::cerr << "confsave: '" << kept.printable_path
              << "' could not be given the mode and owner that it had. Compare and set them by hand.\n";
  }
}

}  // namespace console
