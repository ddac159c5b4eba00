#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "snapshots/journal.h"
#include "snapshots/tree.h"
#include "snapshots/wanted.h"

namespace ConfSave::snapshots {

/// A step with what staging needs for it.
struct PlannedStep {
  Step step;                       ///< `after` is not known yet, except of a directory that is there
  std::optional<Stamp> stamp;      ///< of the file that is there now
  const Wanted* wanted = nullptr;  ///< in the plan's own map
};

/// A plan with everything that is needed to carry it out. Not to be copied: steps point into `wanted`.
struct DetailedPlan {
  DetailedPlan() = default;
  DetailedPlan(DetailedPlan&&) = default;
  DetailedPlan& operator=(DetailedPlan&&) = default;
  DetailedPlan(const DetailedPlan&) = delete;
  DetailedPlan& operator=(const DetailedPlan&) = delete;

  Plan shown;
  std::vector<std::string> directories;  ///< that are restored into, by the number of a step's root
  std::map<std::string, Wanted> wanted;
  std::map<std::string, LiveMember> live;
  DecodedFiles decoded;
  std::vector<PlannedStep> steps;     ///< in the order of execution
  std::vector<std::string> warnings;  ///< a sentence each
};

/// Compares a row with the live files, or with those in the target. `room` in bytes, for decoded files.
Result<DetailedPlan> make_plan(OpenRow& row, const RestoreOptions& options, const Deadline& deadline,
                               std::size_t room = 0);

/// The logs of those files of the configuration database in `directory` that `changes` name. Code::failed
/// if one holds changes that the database does not have yet: no snapshot has them.
Result<std::map<std::string, LiveMember>> find_logs(const std::string& directory,
                                                    const std::map<std::string, PlannedChange>& changes);

/// What a restore makes of a live file that stays of its kind, if anything. The owner is not compared by
/// who cannot set it, nor the mode that a restore limits for that.
std::optional<Difference> difference_for_restore(const Member& live, const Member& wanted,
                                                 bool owners_count);

/// Why nothing can be restored where the socket `path` is: no snapshot has one, and it is never deleted.
Error socket_in_the_way(const std::string& path);

/// Turns the changes of `plan` into steps. Adds those that links take.
void write_steps(DetailedPlan& plan);

/// Whether both do the same to the same files.
bool is_same_plan(const Plan& a, const Plan& b);

}  // namespace ConfSave::snapshots
