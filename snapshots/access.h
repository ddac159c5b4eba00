#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace ConfSave::snapshots {

/// Whether the effective user may; errno says why not. Old container runtimes refuse the system call that
/// asks for the effective user: they answer for the real one.
inline bool may_access(const std::string& path, int mode, int directory = AT_FDCWD) {
  if (faccessat(directory, path.c_str(), mode, AT_EACCESS) == 0) return true;
  return errno == EPERM && faccessat(directory, path.c_str(), mode, 0) == 0;
}

}  // namespace ConfSave::snapshots
