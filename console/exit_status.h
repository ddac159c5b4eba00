#pragma once

namespace console {

/// What the program exits with. Scripts depend on the numbers.
enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,     ///< something went wrong; standard error says what
  kUsage = 2,      ///< called in a way that cannot be followed; nothing was done
  kNotFound = 3,   ///< no stored configuration of that name
  kAmbiguous = 4,  ///< more than one, and none is preferred
  kDeclined = 5,   ///< the person said no
  kNoStorage = 6,  ///< the storage cannot be opened or read
  kNewer = 7,      ///< of a newer version than the running one, and refused
  kBusy = 8,       ///< another confsave is at work
};

}  // namespace console
