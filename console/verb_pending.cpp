#include <chrono>
#include <csignal>
#include <iostream>

#include "exit_status.h"
#include "pending_text.h"
#include "recovering.h"
#include "turns.h"
#include "verb_functions.h"

namespace console {
namespace {

int report_pending(const cs::Error& error) {
  if (error.code == cs::Code::not_pending) {
    std::cerr << "confsave: " << error.text << ".\n";
    return kFailed;
  }
  return report_restore(error);
}

cs::Result<cs::Recovery> revert_in_time(cs::When when, unsigned seconds) {
  return in_turns(seconds, [when](std::chrono::milliseconds wait) {
    cs::ChangeOptions limits;
    limits.wait = wait;
    return cs::revert(when, limits);
  });
}

}  // namespace

int confirm(const Options& options) {
  const auto done = in_turns(options.wait, [](std::chrono::milliseconds wait) {
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
    const auto done = cs::revert(cs::When::when_due);
    return done ? print_recovery(std::cout, *done) : report_pending(done.error());
  }
  const auto done = revert_in_time(options.if_due ? cs::When::if_due : cs::When::now, options.wait);
  return done ? print_recovery(std::cout, *done) : report_pending(done.error());
}

void say_what_is_unfinished() {
  const auto waiting = cs::pending();
  const auto left = cs::unfinished();
  if (waiting && *waiting) {
    std::cerr << "confsave: " << text_of(**waiting) << ".\n";
  } else if (left && *left) {
    std::cerr << "confsave: the restore of '" << label((*left)->name, (*left)->version)
              << "' was interrupted: run 'confsave recover'.\n";
  } else if (!left) {
    report(left.error());
  }
}

void mention_pending() {
  const auto found = cs::pending();
  if (!found && found.error().code != cs::Code::denied) report(found.error());
  if (!found || !*found) return;
  if ((*found)->seconds_left == 0 && !(*found)->is_checked) {
    const auto done = revert_in_time(cs::When::if_due, 1);
    if (done) {
      print_recovery(std::cerr, *done);
      return;
    }
  }
  std::cerr << "confsave: " << text_of(**found) << ".\n";
}

}  // namespace console
