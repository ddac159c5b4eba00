#pragma once

#include <map>
#include <string>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// What differs from `older` to `newer`, both by absolute path.
Differences differences(const std::map<std::string, Member>& older,
                        const std::map<std::string, Member>& newer);

}  // namespace ConfSave::snapshots
