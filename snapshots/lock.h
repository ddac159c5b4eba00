#pragma once

#include <string>

#include "confsave/snapshots.h"
#include "snapshots/deadline.h"
#include "snapshots/descriptor.h"

namespace ConfSave::snapshots {

/// Keeps those apart that save, restore and delete on this host, threads of one process included: a lock on
/// the file "confsave.lock" in the state directory.
///
/// When its process is killed, the lock lives until the last command that the process started has ended:
/// tar may still be at work on the files. Released in order, it is free at once, whoever inherited it.
class Lock {
 public:
  /// Waits until `deadline`. The error of a lock that is not free is Code::busy, and says what its holder
  /// gave as `purpose`.
  static Result<Lock> take(const std::string& purpose, const Deadline& deadline);

  /// Whether somebody holds it. Waits for nobody and changes nothing.
  static bool is_taken();

  Lock(Lock&& other) noexcept = default;
  Lock& operator=(Lock&& other) = delete;
  ~Lock();

 private:
  explicit Lock(Descriptor file) : file_(std::move(file)) {}

  Descriptor file_;
};

}  // namespace ConfSave::snapshots
