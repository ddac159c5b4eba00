#include <csignal>
#include <iostream>

#include "exit_status.h"
#include "recovering.h"
#include "text.h"
#include "turns.h"
#include "verb_functions.h"

namespace console {
namespace {

int report_pending(const cs::Error& error) {
  if (error.code == cs::Code::not_pending) {
    std::cerr << "confsave: " << readable(error.text) << ".\n";
    return kFailed;
  }
  return report_restore(error);
}

}  // namespace

int confirm(const Options& options) {
  const auto done = in_turns(options.deadline, [](std::chrono::milliseconds wait) {
    cs::ChangeOptions limits;
    limits.wait = wait;
    return cs::confirm(limits);
  });
  if (!done) return report_pending(done.error());
  print_warnings(done->warnings);
  std::cout << "The restore of '" << label(done->name, done->version) << "' is kept.\n";
  return kDone;
}

int revert(const Options& options) {
  if (options.when_due) {
    // An interrupt ends the waiting.
    static_cast<void>(std::signal(SIGINT, SIG_DFL));
    if (interrupted()) static_cast<void>(std::raise(SIGINT));
    const auto done = cs::revert(cs::When::when_due, {std::chrono::seconds(options.wait)});
    return done ? print_recovery(std::cout, *done) : report_pending(done.error());
  }
  const auto done = revert_in_time(options.if_due ? cs::When::if_due : cs::When::now, options.deadline);
  return done ? print_recovery(std::cout, *done) : report_pending(done.error());
}

}  // namespace console
