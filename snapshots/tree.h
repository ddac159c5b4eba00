#pragma once

#include <map>
#include <string>

#include "contents.h"
#include "snapshots/limits.h"

namespace ConfSave::snapshots {

/// The files of the contents of `type` as they are now, by absolute path. Follows no symbolic link below
/// the two directories: one in a directory's place is Code::unsafe, as a device, FIFO or socket is. A file
/// that changes while it is read is read again, and is Code::changed_meanwhile after some attempts. The
/// configuration database counts only if it is whole, as it is packed only then.
Result<std::map<std::string, Member>> read_tree(conftype type, const Limits& limits = {});

}  // namespace ConfSave::snapshots
