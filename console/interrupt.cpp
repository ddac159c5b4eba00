#include "interrupt.h"

#include <poll.h>
#include <unistd.h>

namespace console {
namespace {

volatile std::sig_atomic_t seen = 0;

extern "C" void note(int) { seen = 1; }

}  // namespace

InterruptCatcher::InterruptCatcher() : before_() {
  seen = 0;
  sigaction(SIGINT, nullptr, &before_);
  if (before_.sa_handler == SIG_IGN) return;
  // Without SA_RESTART: a read that waits for an answer ends.
  struct sigaction action = {};
  action.sa_handler = note;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
}

InterruptCatcher::~InterruptCatcher() { sigaction(SIGINT, &before_, nullptr); }

TerminationCatcher::TerminationCatcher() : before_() {
  struct sigaction* before = before_;
  for (const int number : kSignals) {
    sigaction(number, nullptr, before);
    struct sigaction action = {};
    action.sa_handler = number == SIGPIPE ? SIG_IGN : note;
    sigemptyset(&action.sa_mask);
    if (before++->sa_handler != SIG_IGN) sigaction(number, &action, nullptr);
  }
}

TerminationCatcher::~TerminationCatcher() {
  const struct sigaction* before = before_;
  for (const int number : kSignals) sigaction(number, before++, nullptr);
}

void TerminationCatcher::reset() {
  struct sigaction standard = {};
  standard.sa_handler = SIG_DFL;
  sigemptyset(&standard.sa_mask);
  for (const int number : kSignals) sigaction(number, &standard, nullptr);
}

bool interrupted() { return seen != 0; }

void forget_interrupt() { seen = 0; }

void note_interrupt() { seen = 1; }

void wait_for_input() {
  if (isatty(STDIN_FILENO) == 0) return;
  // Held back until the wait: between the look at the flag and the wait it would be missed.
  sigset_t interrupt;
  sigset_t before;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  sigprocmask(SIG_BLOCK, &interrupt, &before);
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  if (!interrupted()) ppoll(&input, 1, nullptr, &before);
  sigprocmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace console
