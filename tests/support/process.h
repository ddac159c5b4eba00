#pragma once

// Other processes: shell commands of the tests themselves, and holders of the storage's lock.

#include <string>

namespace test {

/// Runs a shell command for the test itself. The host does not record it.
int shell(const std::string& command);

/// True if a separate process gets the exclusive lock at once.
bool lock_is_free(const std::string& database);

/// A separate process that holds the exclusive lock for some time, or until this object is destroyed.
class LockHolder {
 public:
  /// Returns when the lock is held.
  LockHolder(const std::string& database, int milliseconds);
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;
  ~LockHolder();

 private:
  int pid_ = -1;
};

}  // namespace test
