#pragma once

#include <string>

namespace console {

/// What keeps the savers and loaders of this host apart: a lock on the file "confsave.lock" in the state
/// directory. The system gives it back whatever becomes of the process.
class OperationLock {
 public:
  OperationLock() = default;
  OperationLock(const OperationLock&) = delete;
  OperationLock& operator=(const OperationLock&) = delete;
  ~OperationLock();

  /// Waits for up to so many seconds. `purpose` is what others are told while it is held. Returns kDone,
  /// or what the program is to exit with, after having told why.
  int take(const std::string& purpose, unsigned seconds);

 private:
  int descriptor_ = -1;
  bool held_ = false;
};

}  // namespace console
