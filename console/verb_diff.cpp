#include <iostream>

#include "choosing.h"
#include "exit_status.h"
#include "patch.h"
#include "plan_text.h"
#include "report.h"
#include "verb_functions.h"

namespace console {
namespace {

const char* name_of(cs::Change change) {
  switch (change) {
    case cs::Change::added:
      return "added";
    case cs::Change::removed:
      return "removed";
    case cs::Change::modified:
      break;
  }
  return "modified";
}

Json json_of(const cs::Difference& difference) {
  Json object;
  object["path"] = json_bytes(difference.path);
  object["change"] = name_of(difference.change);
  object["content"] = difference.content;
  object["mode"] = difference.mode;
  object["owner"] = difference.owner;
  object["group"] = difference.group;
  object["time"] = difference.time;
  object["secret"] = difference.secret;
  return object;
}

void print(const Sides& sides, const cs::Differences& differences, bool json) {
  if (!json) {
    for (const cs::Difference& difference : differences) {
      std::cout << line_of(difference) << '\n';
    }
    return;
  }
  Json head;
  head["older"] = json_id(sides.older);
  head["newer"] = sides.newer ? json_id(*sides.newer) : Json(nullptr);
  JsonArray array(head, "differences");
  for (const cs::Difference& difference : differences) array.add(json_of(difference));
  array.end();
}

}  // namespace

int diff(const Options& options) {
  int status = kDone;
  Sides sides;
  const auto older = choose(options.snapshot, options, status);
  if (!older) return status;
  sides.older = *older;
  if (!options.other.name.empty()) {
    sides.newer = choose(options.other, options, status);
    if (!sides.newer) return status;
  }
  const cs::ReadOptions limits{options.deadline.left()};
  const auto differences = sides.newer ? cs::compare(id_of(sides.older), id_of(*sides.newer), limits)
                                       : cs::compare(id_of(sides.older), cs::Live(), limits);
  if (!differences) {
    const std::string or_other = sides.newer ? " or " + label(*sides.newer) : "";
    return report_reading(differences.error(), label(sides.older) + or_other);
  }
  print(sides, *differences, options.json);
  if (options.patch) status = print_patches(sides, *differences);
  if (status != kDone) return status;
  return differences->empty() ? kDone : kFindings;
}

}  // namespace console
