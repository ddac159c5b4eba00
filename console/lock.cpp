#include "lock.h"

#include <fcntl.h>
#include <kelmor/paths.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <thread>

#include "exit_status.h"
#include "names.h"

namespace console {
namespace {

std::string state_directory() {
  return toolsunix::FilenameConvertor::Instance().GetFullDynamicDirName(
      toolsunix::path::DynamicDirectoryId{1});
}

/// What the holder wrote about itself.
std::string holder(int descriptor) {
  char text[200];
  const ssize_t length = pread(descriptor, text, sizeof text, 0);
  if (length <= 0) return "it did not say what it does";
  const std::string whole(text, static_cast<std::size_t>(length));
  return printable(whole.substr(0, whole.find('\n')));
}

bool lock_within(int descriptor, std::chrono::seconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  for (;;) {
    if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    if (std::chrono::steady_clock::now() >= end) {
      errno = EWOULDBLOCK;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

/// For people only: that it cannot be written is no reason to stop.
void write_holder(int descriptor, const std::string& purpose) {
  const std::string text = "process " + std::to_string(getpid()) + ", " + purpose + "\n";
  if (ftruncate(descriptor, 0) != 0 || pwrite(descriptor, text.data(), text.size(), 0) < 0) return;
}

}  // namespace

OperationLock::~OperationLock() {
  if (descriptor_ == -1) return;
  // Before the lock is given back: who comes next is not to be told of this one.
  if (held_ && ftruncate(descriptor_, 0) != 0) errno = 0;
  close(descriptor_);
}

int OperationLock::take(const std::string& purpose, unsigned seconds) {
  const std::string file = state_directory() + "/confsave.lock";
  descriptor_ = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor_ == -1) {
    std::cerr << "confsave: cannot open '" << printable(file) << "': " << std::strerror(errno)
              << ". The state directory must exist and be yours to write; KELMOR_DYNAMIC_DIR names it.\n";
    return kNoStorage;
  }
  if (lock_within(descriptor_, std::chrono::seconds(seconds))) {
    held_ = true;
    write_holder(descriptor_, purpose);
    return kDone;
  }
  if (errno == EWOULDBLOCK) {
    std::cerr << "confsave: another confsave is at work (" << holder(descriptor_)
              << "). Try again when it is done, or wait longer with --wait.\n";
    return kBusy;
  }
  std::cerr << "confsave: cannot lock '" << printable(file) << "': " << std::strerror(errno) << ".\n";
  return kFailed;
}

}  // namespace console
