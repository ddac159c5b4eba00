#pragma once

#include <csignal>

namespace console {

/// While it lives, an interrupt typed at the terminal (SIGINT) does not end the process, but is noted: a
/// question counts as not answered, and no further command runs. Does nothing when SIGINT is ignored.
class InterruptCatcher {
 public:
  InterruptCatcher();
  InterruptCatcher(const InterruptCatcher&) = delete;
  InterruptCatcher& operator=(const InterruptCatcher&) = delete;
  ~InterruptCatcher();

 private:
  struct sigaction before_;
};

/// While it lives, nothing that ends a session (SIGHUP, SIGTERM, SIGQUIT) ends the process: it counts as an
/// interrupt. A reader of the output that has gone does not end it either (SIGPIPE).
class TerminationCatcher {
 public:
  TerminationCatcher();
  TerminationCatcher(const TerminationCatcher&) = delete;
  TerminationCatcher& operator=(const TerminationCatcher&) = delete;
  ~TerminationCatcher();

  /// After fork(): what is caught ends the child.
  static void reset();

 private:
  static constexpr int kSignals[] = {SIGHUP, SIGTERM, SIGQUIT, SIGPIPE};
  struct sigaction before_[4];
};

/// Whether an interrupt came since the last InterruptCatcher was made.
bool interrupted();

void forget_interrupt();

/// Notes the interrupt that ended a command: the process itself ignores it meanwhile.
void note_interrupt();

/// Waits until something was typed at the terminal, or an interrupt came. Returns at once if standard input
/// is no terminal.
void wait_for_input();

}  // namespace console
