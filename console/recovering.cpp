#include "recovering.h"

#include <iostream>

#include "exit_status.h"
#include "pending_text.h"
#include "text.h"
#include "turns.h"

namespace console {

cs::Result<cs::Recovery> recover_in_time(const Deadline& deadline) {
  return in_turns(deadline, [](std::chrono::milliseconds wait) {
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

cs::Result<cs::Recovery> revert_in_time(cs::When when, const Deadline& deadline) {
  return in_turns(deadline, [when](std::chrono::milliseconds wait) {
    cs::ChangeOptions limits;
    limits.wait = wait;
    return cs::revert(when, limits);
  });
}

void print_unfinished(const Options& options, const cs::Error& known) {
  const auto waiting = cs::pending({options.deadline.left()});
  const auto left = cs::unfinished({options.deadline.left()});
  if (waiting && *waiting) {
    std::cerr << "confsave: " << text_of(**waiting) << ".\n";
  } else if (left && *left) {
    std::cerr << "confsave: the restore of '" << label((*left)->name, (*left)->version)
              << "' was interrupted: run 'confsave recover'.\n";
  } else if (!left && (left.error().path != known.path || left.error().text != known.text)) {
    report(left.error());
  }
}

bool settle_pending(const Options& options, bool goes_on) {
  const auto found = cs::pending({options.deadline.left()});
  if (!found && goes_on && found.error().code != cs::Code::denied) {
    std::cerr << "confsave: warning: whether a restore is pending is not known: "
              << reason_and_step(found.error(), false) << '\n';
  }
  if (!found || !*found) return false;
  if ((*found)->seconds_left == 0 && !(*found)->is_checked) {
    if (const auto done = revert_in_time(cs::When::if_due, Deadline(kWaitOfReaders))) {
      print_recovery(std::cerr, *done);
      return true;
    }
  }
  std::cerr << "confsave: " << text_of(**found) << ".\n";
  return false;
}

void settle_interrupted(const Options& options) {
  const auto left = cs::unfinished({options.deadline.left()});
  if (!left || !*left || (*left)->is_pending) return;
  // Only the verb itself waits.
  if (const auto done = recover_in_time(Deadline(0))) print_recovery(std::cerr, *done);
}

}  // namespace console
