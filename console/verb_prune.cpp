#include <iostream>

#include "deleting.h"
#include "exit_status.h"
#include "names.h"
#include "text.h"
#include "turns.h"
#include "verb_functions.h"

namespace console {
namespace {

cs::PruneOptions options_of(const Options& options) {
  cs::PruneOptions how;
  how.keep = options.keep_newest;
  if (options.older_than) how.older_than = std::chrono::hours(24) * *options.older_than;
  how.pattern = options.match;
  how.dry_run = options.dry_run;
  return how;
}

Json json_of(const cs::Victim& victim) {
  Json object = json_id(victim.snapshot);
  object["reason"] = victim.reason;
  return object;
}

void print_json(const cs::Pruned& pruned) {
  Json head;
  head["kept"] = pruned.kept;
  JsonArray array(head, "deleted");
  for (const cs::Victim& victim : pruned.deleted) array.add(json_of(victim));
  array.end();
}

void print(const cs::Pruned& pruned, bool dry_run, std::ostream& out) {
  for (const cs::Victim& victim : pruned.deleted) {
    out << (dry_run ? "Would delete '" : "Deleted '") << label(victim.snapshot) << "', saved on "
        << ConfSave::time_format(victim.snapshot.config.save_time) << ": " << victim.reason << ".\n";
  }
  if (pruned.deleted.empty() && pruned.undeleted.empty()) out << "There is nothing to delete.\n";
}

}  // namespace

int prune(const Options& options) {
  if (options.match && !check_pattern(*options.match)) return kUsage;
  cs::PruneOptions how = options_of(options);
  auto pruned = in_turns(options.deadline, [&](std::chrono::milliseconds wait) {
    how.wait = wait;
    return cs::prune(how);
  });
  if (!pruned) return report(pruned.error(), true);
  delete_again(pruned->undeleted, options.deadline, pruned->deleted);
  // A document is complete, or there is none.
  if (options.json && pruned->undeleted.empty()) {
    print_json(*pruned);
  } else {
    print(*pruned, options.dry_run, options.json ? std::cerr : std::cout);
  }
  return report_undeleted(pruned->undeleted);
}

}  // namespace console
