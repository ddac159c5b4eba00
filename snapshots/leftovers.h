#pragma once

#include <string>
#include <vector>

#include "snapshots/deadline.h"

namespace ConfSave::snapshots {

/// What killed processes have left: scratch directories and staging directories in the two destinations,
/// and temporary archives. Empty while a process holds "confsave.lock": they may be its own. The
/// staging directories of a restore that is not finished are not left: its journal knows them.
///
/// mkdtemp and mkstemp make names of six letters and digits. Of these, only what has the mode that our code
/// gives it and belongs to this user or root counts, and no word of small letters, which a person may have
/// chosen.
std::vector<std::string> leftovers(const Deadline& deadline);

}  // namespace ConfSave::snapshots
