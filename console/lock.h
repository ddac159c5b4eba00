#pragma once

#include <string>

namespace console {

/// Keeps the savers and loaders of this host apart: a lock on the file "confsave.lock" in the state
/// directory. The system releases it when this process and its commands have ended, however they end.
class OperationLock {
 public:
  OperationLock() = default;
  OperationLock(const OperationLock&) = delete;
  OperationLock& operator=(const OperationLock&) = delete;
  ~OperationLock();

  /// Waits for up to `seconds`. `purpose` is what a confsave that waits in vain prints. Returns kDone, or
  /// prints the reason and returns the exit status.
  int take(const std::string& purpose, unsigned seconds);

 private:
  int descriptor_ = -1;
  bool held_ = false;
};

}  // namespace console
