#include <iostream>

#include "exit_status.h"
#include "recovering.h"
#include "verb_functions.h"

namespace console {

int recover(const Options& options) {
  const auto done = recover_in_time(options.deadline);
  if (!done && done.error().code == cs::Code::pending) {
    // One that waits to be confirmed is neither to be finished nor to be undone.
    const auto waiting = cs::pending();
    if (waiting && *waiting && !(*waiting)->is_checked) {
      settle_pending(options, false);
      return kDone;
    }
  }
  if (!done) return report_restore(done.error());
  if (done->outcome == cs::Recovery::Outcome::nothing) std::cout << "No restore was interrupted.\n";
  return print_recovery(std::cout, *done);
}

}  // namespace console
