// prune: deletes snapshots by a rule.

#include <algorithm>
#include <ctime>
#include <optional>

#include "snapshots/arguments.h"
#include "snapshots/boundary.h"
#include "snapshots/lock.h"
#include "snapshots/recover.h"
#include "snapshots/summary.h"
#include "snapshots/victims.h"

namespace ConfSave::snapshots {
namespace {

Error check(const PruneOptions& options) {
  const auto bad = [](const char* text) { return Error{Code::bad_argument, 0, "", text}; };
  if (options.keep < 1) return bad("at least one snapshot must stay");
  if (options.older_than && options.older_than->count() < 0) return bad("the age is negative");
  if (options.pattern && options.pattern->empty()) return bad("the pattern is empty");
  return options.pattern ? check_pattern(*options.pattern) : Error{};
}

Surplus surplus_of(const PruneOptions& options) {
  Surplus surplus;
  surplus.pattern = options.pattern;
  surplus.keep = options.keep;
  if (options.older_than) {
    // No clock shows more; a product of larger numbers would not fit.
    const auto age = std::min<std::chrono::hours>(*options.older_than, std::chrono::hours(int64{1} << 40U));
    surplus.saved_before = std::time(nullptr) - std::chrono::seconds(age).count();
  }
  return surplus;
}

/// Recovers what is interrupted. A restore that waits for its check or its confirmation is not disturbed,
/// and deleting perhaps makes the room that the recovery needs.
Error recover_if_possible(const Deadline& deadline) {
  Error error = recover_first(deadline);
  return error.code == Code::pending || error.code == Code::no_space ? Error{} : error;
}

Result<Pruned> choose_and_delete(const PruneOptions& options) {
  if (Error error = check(options); error.code != Code::ok) return error;
  const Deadline deadline(options.wait);
  Surplus surplus = surplus_of(options);
  // Before the recovery, so that a dry run names the same ones.
  if (Error error = add_unfinished(surplus, deadline); error.code != Code::ok) return error;
  std::optional<Lock> lock;
  if (!options.dry_run) {
    Result<Lock> taken = Lock::take("deleting old snapshots", deadline);
    if (!taken) return taken.error();
    lock.emplace(std::move(*taken));
    Error error = recover_if_possible(deadline);
    // Another restore may have begun while the lock was waited for.
    if (error.code == Code::ok) error = add_unfinished(surplus, deadline);
    if (error.code != Code::ok) return error;
  }
  Result<Choice> choice = choose_victims(surplus, deadline);
  if (!choice) return choice.error();
  Pruned pruned;
  pruned.kept = choice->kept;
  if (options.dry_run) {
    pruned.deleted = std::move(choice->victims);
  } else {
    delete_victims(std::move(choice->victims), deadline, pruned.deleted, pruned.undeleted);
    keep_summary();
  }
  return pruned;
}

}  // namespace

Result<Pruned> prune(const PruneOptions& options) {
  return at_boundary([&] { return choose_and_delete(options); });
}

}  // namespace ConfSave::snapshots
