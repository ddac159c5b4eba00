#pragma once

#include <string>

namespace ConfSave::snapshots {

/// Who runs this process, for a person: the user, and in parentheses whom the session belongs to and its
/// terminal, as far as the system says. For example "root (anna, pts/3)".
std::string author();

}  // namespace ConfSave::snapshots
