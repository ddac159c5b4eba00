#include "snapshots/own_descriptors.h"

#include <linux/close_range.h>
#include <sched.h>
#include <unistd.h>

#include <system_error>
#include <utility>

#include "snapshots/blocked_signals.h"

namespace ConfSave::snapshots {
namespace {

/// Of this thread only. No copies go into the table but those of the standard streams: one of a pipe, or of
/// a file with a lock of flock(2), would keep it open. Old kernels can only copy all.
void take_table() {
  if (close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_UNSHARE) != 0) unshare(CLONE_FILES);
}

void wait_for(sem_t& semaphore) {
  while (sem_wait(&semaphore) != 0) {
    // A handler of a signal has run.
  }
}

}  // namespace

OwnDescriptors::OwnDescriptors() {
  sem_init(&begin_, 0, 0);
  sem_init(&done_, 0, 0);
}

OwnDescriptors::~OwnDescriptors() {
  if (state_ == State::started) {
    task_ = nullptr;
    sem_post(&begin_);
    thread_.join();
  }
  sem_destroy(&begin_);
  sem_destroy(&done_);
}

void OwnDescriptors::start() {
  const BlockedSignals blocked;
  try {
    thread_ = std::thread([this] { serve(); });
    state_ = State::started;
  } catch (const std::system_error&) {
    state_ = State::refused;
  }
}

void OwnDescriptors::run(const Task& task) {
  if (state_ == State::not_started) start();
  if (state_ == State::refused) return task();
  task_ = &task;
  sem_post(&begin_);
  wait_for(done_);
  if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
}

void OwnDescriptors::serve() {
  take_table();
  for (;;) {
    wait_for(begin_);
    if (task_ == nullptr) return;
    try {
      (*task_)();
    } catch (...) {
      thrown_ = std::current_exception();
    }
    sem_post(&done_);
  }
}

}  // namespace ConfSave::snapshots
