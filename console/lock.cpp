#include "lock.h"

#include <fcntl.h>
#include <places.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <thread>

#include "exit_status.h"
#include "interrupt.h"
#include "storage_wait.h"
#include "text.h"

namespace console {
namespace {

/// What the holder wrote about itself.
std::string holder(int descriptor) {
  char text[200];
  const ssize_t length = pread(descriptor, text, sizeof text, 0);
  if (length <= 0) return "it does not say what it does";
  const std::string whole(text, static_cast<std::size_t>(length));
  return printable(whole.substr(0, whole.find('\n')));
}

using Clock = std::chrono::steady_clock;

bool lock_until(int descriptor, Clock::time_point end) {
  for (;;) {
    if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    if (interrupted() || Clock::now() >= end) {
      errno = interrupted() ? EINTR : EWOULDBLOCK;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

/// For people only, so a failure is ignored.
void write_holder(int descriptor, const std::string& purpose) {
  const std::string text = "process " + std::to_string(getpid()) + ", " + purpose + "\n";
  if (ftruncate(descriptor, 0) != 0 || pwrite(descriptor, text.data(), text.size(), 0) < 0) return;
}

}  // namespace

OperationLock::~OperationLock() {
  if (descriptor_ == -1) return;
  // While the lock is held, so that the next holder's text is not erased.
  if (held_ && ftruncate(descriptor_, 0) != 0) errno = 0;
  close(descriptor_);
}

int OperationLock::take(const std::string& purpose, unsigned seconds) {
  const std::string file = ConfSave::state_directory() + "/confsave.lock";
  // Not closed on exec: a command that outlives this process still works on the files.
  descriptor_ = open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (descriptor_ == -1) {
    std::cerr << "confsave: cannot open '" << printable(file) << "': " << std::strerror(errno)
              << ". The state directory must exist, and you must be allowed to write to it. "
              << "KELMOR_DYNAMIC_DIR sets another one.\n";
    return kNoStorage;
  }
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  if (lock_until(descriptor_, end)) {
    held_ = true;
    // What is left of the time; a moment in any case, because readers come and go.
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    limit_storage_wait(std::max<std::chrono::milliseconds>(left, std::chrono::seconds(1)));
    write_holder(descriptor_, purpose);
    return kDone;
  }
  if (errno == EINTR) {
    std::cerr << "confsave: interrupted; nothing was done.\n";
    return kFailed;
  }
  if (errno == EWOULDBLOCK) {
    std::cerr << "confsave: another confsave is at work (" << holder(descriptor_)
              << "). Try again later, or wait longer with --wait.\n";
    return kBusy;
  }
  std::cerr << "confsave: cannot lock '" << printable(file) << "': " << std::strerror(errno)
            << ". The state directory must be on a file system with locks.\n";
  return kFailed;
}

}  // namespace console
