// note, pin, unpin, delete: what changes one snapshot that is stored.

#include "choosing.h"
#include "exit_status.h"
#include "report.h"
#include "verb_functions.h"

namespace console {
namespace {

/// Finds the snapshot, and calls `change_one` with it and with what the library needs besides.
template <class Limits, class Change>
int change(const Options& options, Limits limits, Change change_one) {
  int status = kDone;
  const auto snapshot = choose_to_change(options, status);
  if (!snapshot) return status;
  limits.wait = options.deadline.left();
  const cs::Error error = change_one(*snapshot, limits);
  return error.code == cs::Code::ok ? kDone : report(error, true);
}

}  // namespace

int note(const Options& options) {
  return change(options, cs::ChangeOptions(),
                [&](const cs::Snapshot& found, const cs::ChangeOptions& limits) {
                  return cs::note(id_of(found), options.text, limits);
                });
}

int pin(const Options& options) {
  return change(options, cs::ChangeOptions(),
                [](const cs::Snapshot& found, const cs::ChangeOptions& limits) {
                  return cs::pin(id_of(found), true, limits);
                });
}

int unpin(const Options& options) {
  return change(options, cs::ChangeOptions(),
                [](const cs::Snapshot& found, const cs::ChangeOptions& limits) {
                  return cs::pin(id_of(found), false, limits);
                });
}

int remove(const Options& options) {
  cs::RemoveOptions limits;
  limits.even_pinned = options.force;
  // One that is stored under its name meanwhile stays.
  return change(options, limits, [](const cs::Snapshot& found, const cs::RemoveOptions& given) {
    return cs::remove(found, given);
  });
}

}  // namespace console
