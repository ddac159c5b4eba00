#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace ConfSave::snapshots {

/// Whether the effective user may; errno says why not. Old container runtimes refuse the newer system call,
/// which the C library makes for each question: the older one answers for the real user.
inline bool may_access(const std::string& path, int mode, int directory = AT_FDCWD) {
  if (faccessat(directory, path.c_str(), mode, AT_EACCESS) == 0) return true;
  return errno == EPERM && syscall(SYS_faccessat, directory, path.c_str(), mode) == 0;
}

/// Also a link to nothing.
inline bool exists(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

}  // namespace ConfSave::snapshots
