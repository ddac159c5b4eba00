#pragma once

#include <map>
#include <optional>
#include <string>

#include "snapshots/tree.h"

namespace ConfSave::snapshots {

/// What differs between two members of one path; no value if nothing does.
std::optional<Difference> difference_between(const Member& older, const Member& newer);

/// What differs from `older` to `newer`, both by absolute path.
Differences differences(const std::map<std::string, Member>& older,
                        const std::map<std::string, Member>& newer);
Differences differences(const std::map<std::string, Member>& older,
                        const std::map<std::string, LiveMember>& newer);
Differences differences(const std::map<std::string, LiveMember>& older,
                        const std::map<std::string, LiveMember>& newer);

}  // namespace ConfSave::snapshots
