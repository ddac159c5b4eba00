// plan: what a restore would do, for who asks before it is done.

#include "snapshots/arguments.h"
#include "snapshots/boundary.h"
#include "snapshots/plan.h"
#include "snapshots/recover.h"

namespace ConfSave::snapshots {
namespace {

Result<Plan> plan_restore(const Id& id, const RestoreOptions& options) {
  if (Error error = check_paths(options); error.code != Code::ok) return error;
  const Deadline deadline(options.wait);
  if (Error error = check_finished(deadline); error.code != Code::ok) return error;
  Result<OpenRow> row = open_row(id, deadline);
  if (!row) return row.error();
  Result<DetailedPlan> plan = make_plan(*row, options, deadline);
  if (!plan) return plan.error();
  return std::move(plan->shown);
}

}  // namespace

Result<Plan> plan(const Id& id, const RestoreOptions& options) {
  return at_boundary([&] { return plan_restore(id, options); });
}

}  // namespace ConfSave::snapshots
