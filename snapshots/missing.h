#pragma once

#include <set>
#include <string>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// The fixed paths of the contents of `type`, those without a pattern, that are not in `present`.
std::set<std::string> absent_fixed_paths(conftype type, const std::set<std::string>& present);

/// The files of the configuration database that exist although it is not whole, so that it is not packed.
std::set<std::string> database_remains(const std::set<std::string>& present);

}  // namespace ConfSave::snapshots
