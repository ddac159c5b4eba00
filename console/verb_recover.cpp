#include <iostream>

#include "exit_status.h"
#include "pending_text.h"
#include "recovering.h"
#include "text.h"
#include "turns.h"
#include "verb_functions.h"

namespace console {

cs::Result<cs::Recovery> recover_in_time(unsigned seconds) {
  return in_turns(seconds, [](std::chrono::milliseconds wait) {
    cs::ChangeOptions limits;
    limits.wait = wait;
    return cs::recover(limits);
  });
}

int print_recovery(std::ostream& out, const cs::Recovery& done) {
  using Outcome = cs::Recovery::Outcome;
  const std::string which = "'" + label(done.name, done.version) + "'";
  switch (done.outcome) {
    case Outcome::nothing:
      break;
    case Outcome::undone:
      out << "A restore of " << which << " was interrupted, and is undone: the files of before are back.\n";
      break;
    case Outcome::finished:
      out << "A restore of " << which << " was interrupted, and is finished.\n";
      break;
    case Outcome::reverted:
      out << "The restore of " << which << " is taken back: the files of before are back.\n";
      break;
  }
  if (!done.kept.empty()) {
    out << "What was edited since is kept as '" << readable(done.kept) << "'.\n";
  }
  print_warnings(done.warnings);
  return kDone;
}

void mention_recovery() {
  const auto left = cs::unfinished();
  if (!left || !*left || (*left)->is_pending) return;
  // Only the verb itself waits.
  if (const auto done = recover_in_time(0)) print_recovery(std::cerr, *done);
}

int recover(const Options& options) {
  const auto done = recover_in_time(options.wait);
  if (!done && done.error().code == cs::Code::pending) {
    // One that waits to be confirmed is neither to be finished nor to be undone.
    const auto waiting = cs::pending();
    if (waiting && *waiting && !(*waiting)->is_checked) {
      mention_pending();
      return kDone;
    }
  }
  if (!done) return report_restore(done.error());
  if (done->outcome == cs::Recovery::Outcome::nothing) std::cout << "No restore was interrupted.\n";
  return print_recovery(std::cout, *done);
}

}  // namespace console
