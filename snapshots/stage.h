#pragma once

#include <string>
#include <vector>

#include "snapshots/exchange.h"
#include "snapshots/plan.h"

namespace ConfSave::snapshots {

/// Makes the staging directories, and in them each new file of the plan, whole. `row` is that of the plan,
/// in the same transaction. Completes the steps.
Error stage(OpenRow& row, DetailedPlan& plan, std::vector<Site>& sites, const RestoreOptions& options);

}  // namespace ConfSave::snapshots
