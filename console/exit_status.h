#pragma once

namespace console {

/// The program's exit statuses. Scripts depend on the numbers.
enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,     ///< a verb failed; standard error says why
  kUsage = 2,      ///< invalid arguments; nothing was done
  kNotFound = 3,   ///< no snapshot of that name
  kAmbiguous = 4,  ///< more than one snapshot matches
  kDeclined = 5,   ///< a person answered no
  kNoStorage = 6,  ///< the storage cannot be opened or read
  kNewer = 7,      ///< refused: the snapshot is newer than the running version
  kBusy = 8,       ///< another confsave is at work, or another program keeps the storage locked
  kFindings = 9,   ///< there are differences, or damage, or something needs attention
  kPending = 10,   ///< refused: a restore waits for its check or confirmation, or cannot be undone
  kRefused = 11,   ///< refused: the snapshot is pinned, or the name is taken
};

}  // namespace console
