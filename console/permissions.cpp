#include "permissions.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>

#include "text.h"

namespace console {
namespace {

constexpr mode_t kModeBits = S_ISUID | S_ISGID | S_ISVTX | S_IRWXU | S_IRWXG | S_IRWXO;
constexpr const char* kAcl = "system.posix_acl_access";

/// An ACL as the kernel hands it out: a header of four bytes, then entries.
using Acl = std::vector<char>;

struct AclEntry {
  std::uint16_t tag;
  std::uint16_t rights;
  std::uint32_t id;
};
constexpr std::size_t kAclHeader = 4;
enum AclTag : std::uint16_t { kOwner = 0x01, kMask = 0x10, kOthers = 0x20 };

/// Empty if the file has no ACL.
Acl acl_of(const std::string& path) {
  const ssize_t size = lgetxattr(path.c_str(), kAcl, nullptr, 0);
  Acl acl(size > 0 ? static_cast<std::size_t>(size) : 0);
  if (!acl.empty() && lgetxattr(path.c_str(), kAcl, acl.data(), acl.size()) != size) acl.clear();
  return acl;
}

/// The three bits of `mode` from `shift` on.
std::uint16_t rights_of(mode_t mode, unsigned shift) {
  return static_cast<std::uint16_t>(mode >> shift & 7U);
}

/// Limits `acl` to the rights of `mode`, in which the group's are those of the mask.
void limit(Acl& acl, mode_t mode) {
  for (std::size_t at = kAclHeader; at + sizeof(AclEntry) <= acl.size(); at += sizeof(AclEntry)) {
    AclEntry entry = {};
    std::memcpy(&entry, &acl[at], sizeof entry);
    if (entry.tag == kOwner) entry.rights = rights_of(mode, 6);
    if (entry.tag == kMask) entry.rights &= rights_of(mode, 3);
    if (entry.tag == kOthers) entry.rights = rights_of(mode, 0);
    std::memcpy(&acl[at], &entry, sizeof entry);
  }
}

bool is_same(const struct stat& a, const struct stat& b) {
  return a.st_mode == b.st_mode && a.st_uid == b.st_uid && a.st_gid == b.st_gid;
}

bool set_mode(const std::string& path, mode_t mode) { return chmod(path.c_str(), mode & kModeBits) == 0; }

/// Without its ACL a group must not get the rights of the mask.
bool set_acl(const std::string& path, const Acl& acl, mode_t mode) {
  if (lsetxattr(path.c_str(), kAcl, acl.data(), acl.size(), 0) == 0) return true;
  set_mode(path, mode & ~static_cast<mode_t>(S_IRWXG));
  return false;
}

}  // namespace

/// The text is made early, so that the destructor allocates nothing.
struct KeptPermissions::Kept {
  std::string path;
  std::string printable_path;
  struct stat status;
  Acl acl;
  bool is_parent;

  /// What the archive says of the mode holds, within the ACL.
  bool set_member_again() {
    struct stat now = {};
    if (lstat(path.c_str(), &now) != 0 || S_ISLNK(now.st_mode)) return true;
    limit(acl, now.st_mode);
    return set_acl(path, acl, now.st_mode);
  }

  /// The owner first: a change of the owner clears the special bits of the mode.
  bool set_parent_again() const {
    struct stat now = {};
    if (lstat(path.c_str(), &now) != 0 || !S_ISDIR(now.st_mode)) return false;
    const bool owned = is_same(now, status) || lchown(path.c_str(), status.st_uid, status.st_gid) == 0;
    if (!acl.empty() && !set_acl(path, acl, status.st_mode)) return false;
    return (is_same(now, status) || set_mode(path, status.st_mode)) && owned;
  }
};

KeptPermissions::KeptPermissions(const Destination& destination) {
  const auto keep = [this](const std::string& path, bool is_parent) {
    Kept kept = {path, printable(path), {}, acl_of(path), is_parent};
    if (lstat(path.c_str(), &kept.status) != 0 || (kept.acl.empty() && !is_parent)) return;
    kept_.push_back(std::move(kept));
  };
  for (const std::string& path : destination.members()) keep(path, false);
  // Last, so that they open up when the files in them are closed.
  for (const std::string& path : destination.parents()) keep(path, true);
}

KeptPermissions::~KeptPermissions() {
  for (Kept& kept : kept_) {
    if (kept.is_parent ? kept.set_parent_again() : kept.set_member_again()) continue;
    std::cerr << "confsave: '" << kept.printable_path
              << "' could not be given the permissions that it had: " << std::strerror(errno)
              << ". Compare and set them by hand.\n";
  }
}

void warn_of_acls(const Destination& source) {
  for (const std::string& path : source.members()) {
    if (acl_of(path).empty()) continue;
    std::cerr << "confsave: warning: '" << printable(path)
              << "' has an access control list, which a snapshot "
              << "does not hold. If the file is lost, a load grants the rights of the list's mask to the "
              << "file's group.\n";
  }
}

}  // namespace console
