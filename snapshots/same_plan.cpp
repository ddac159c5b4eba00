#include <algorithm>

#include "snapshots/plan.h"

namespace ConfSave::snapshots {
namespace {

bool is_same(const PlannedChange& a, const PlannedChange& b) {
  const Difference& x = a.difference;
  const Difference& y = b.difference;
  return a.action == b.action && x.path == y.path && x.content == y.content && x.mode == y.mode &&
         x.owner == y.owner && x.group == y.group && x.time == y.time;
}

}  // namespace

bool is_same_plan(const Plan& a, const Plan& b) {
  return a.snapshot.id == b.snapshot.id && a.snapshot.config.save_time == b.snapshot.config.save_time &&
         a.snapshot.keybase_size == b.snapshot.keybase_size && a.snapshot.etc_size == b.snapshot.etc_size &&
         a.present == b.present && a.extra == b.extra &&
         std::equal(a.changes.begin(), a.changes.end(), b.changes.begin(), b.changes.end(),
                    static_cast<bool (*)(const PlannedChange&, const PlannedChange&)>(is_same));
}

}  // namespace ConfSave::snapshots
