#pragma once

#include <cerrno>
#include <string>

#include "snapshots/beneath.h"

namespace ConfSave::snapshots {

/// For messages: the file that is staged.
inline Error cannot_stage(const Beneath& beneath, const std::string& path, int number) {
  Error error = beneath.failure(path, number);
  error.text = "cannot stage the new file: " + error.text;
  return error;
}

inline Error changed_while_staged(const std::string& shown) {
  return {Code::changed_meanwhile, 0, shown, "the file changed while the restore was prepared"};
}

/// The plan found a file there. If none is there any more, somebody deleted or replaced it.
inline bool is_gone(int number) { return number == ENOENT || number == ELOOP; }

}  // namespace ConfSave::snapshots
