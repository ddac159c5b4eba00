// note, pin, unpin, delete: what changes one snapshot that is stored.

#include "choosing.h"
#include "exit_status.h"
#include "report.h"
#include "verb_functions.h"

namespace console {
namespace {

/// Finds the snapshot, and calls `change_one` with what the library needs.
template <class Limits, class Change>
int change(const Options& options, Limits limits, Change change_one) {
  int status = kDone;
  const auto snapshot = choose_to_change(options, status);
  if (!snapshot) return status;
  limits.wait = options.deadline.left();
  const cs::Error error = change_one(id_of(*snapshot), limits);
  return error.code == cs::Code::ok ? kDone : report(error, true);
}

}  // namespace

int note(const Options& options) {
  return change(options, cs::ChangeOptions(), [&](const cs::Id& id, const cs::ChangeOptions& limits) {
    return cs::note(id, options.text, limits);
  });
}

int pin(const Options& options) {
  return change(options, cs::ChangeOptions(), [](const cs::Id& id, const cs::ChangeOptions& limits) {
    return cs::pin(id, true, limits);
  });
}

int unpin(const Options& options) {
  return change(options, cs::ChangeOptions(), [](const cs::Id& id, const cs::ChangeOptions& limits) {
    return cs::pin(id, false, limits);
  });
}

int remove(const Options& options) {
  cs::RemoveOptions limits;
  limits.even_pinned = options.force;
  return change(options, limits,
                [](const cs::Id& id, const cs::RemoveOptions& given) { return cs::remove(id, given); });
}

}  // namespace console
