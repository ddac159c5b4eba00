#pragma once

#include "confsave/snapshots.h"
#include "snapshots/descriptor.h"

namespace ConfSave::snapshots {

/// The process that waits for the check of a restore. The lock ends with it, even if its children live on.
class CheckOwner {
 public:
  /// Code::pending if another process, or another thread, is it.
  static Result<CheckOwner> become(const Snapshot& snapshot);

  /// Whether there is one. Takes no lock.
  static bool is_alive();

  CheckOwner(CheckOwner&& other) noexcept = default;
  CheckOwner& operator=(CheckOwner&& other) = delete;
  /// Also frees it from a process that the check has forked and that has inherited it.
  ~CheckOwner();

 private:
  explicit CheckOwner(Descriptor file) : file_(std::move(file)) {}

  Descriptor file_;
};

}  // namespace ConfSave::snapshots
