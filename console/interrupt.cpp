#include "interrupt.h"

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

bool interrupted() { return seen != 0; }

void note_interrupt() { seen = 1; }

}  // namespace console
