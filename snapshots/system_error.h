#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// The code that says what the system's error number means for the caller.
inline Code code_of_number(int number) {
  switch (number) {
    case EACCES:
    case EPERM:
    case EROFS:
      return Code::denied;
    case ENOSPC:
    case EDQUOT:
      return Code::no_space;
    default:
      return Code::failed;
  }
}

/// The failure of a system call.
inline Error system_error(const std::string& path, int number = errno) {
  return {code_of_number(number), number, path, std::strerror(number)};
}

}  // namespace ConfSave::snapshots
