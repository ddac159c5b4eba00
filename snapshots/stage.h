#pragma once

#include <string>
#include <vector>

#include "snapshots/exchange.h"
#include "snapshots/plan.h"

namespace ConfSave::snapshots {

/// Makes the staging directories, and in them each new file of the plan, whole. `row` is that of the plan,
/// in the same transaction. Completes the steps.
Error stage(OpenRow& row, DetailedPlan& plan, std::vector<Site>& sites, const RestoreOptions& options);

/// Makes the file systems of the directories durable: what was staged in `sites`, and the files that equal
/// the snapshot already, which who wrote them may not have synced.
Error sync_destinations(const std::vector<std::string>& directories, const std::vector<Site>& sites = {});

}  // namespace ConfSave::snapshots
