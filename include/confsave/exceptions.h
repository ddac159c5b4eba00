#pragma once

// What <confsave.h> throws. All derive from XTOOStatus. A host can catch each as itself, as XTOOStatus or
// as XTOOMsg. Status() returns status_none unless a comment says otherwise.

#include <string>

#include "confsave/config.h"
#include "kelmor/status.h"

namespace ConfSave {

/// What Status() of an exception returns. Values without a class in their comment belong to a plain
/// XTOOStatus, which has the system's text.
enum status_code : int {
  status_none = 0,      ///< the class of the exception says what happened
  status_mkdtemp = 3,   ///< cannot make a scratch directory in the destination
  status_read = 5,      ///< cannot read an archive from its temporary file
  status_write = 6,     ///< cannot write an archive to its temporary file
  status_mkstemp = 17,  ///< cannot make a temporary file
  status_access = 19,   ///< XExternalFailure: cannot find out whether a file exists
  status_command = 36,  ///< XExternalFailure: a command failed. plain XTOOStatus: no temporary file
  status_unlink = 43,   ///< XExternalFailure: cannot delete a file
  status_fstat = 45,    ///< cannot get the size of a temporary file
  status_lseek = 54,    ///< cannot rewind a temporary file
};

/// A command (status_command) or a system call (status_access, status_unlink) failed.
class CONFSAVE_API XExternalFailure : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// The user declined.
class CONFSAVE_API XCancel : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// No snapshot matches.
class CONFSAVE_API XNotFound : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// More than one snapshot matches.
class CONFSAVE_API XAmbiguity : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// A stored row is invalid, or a name and version already exist; the text says which.
class CONFSAVE_API XConstraint : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// A directory could not be entered. The library never throws it, but catches it and prints a message: a
/// host's command runner that changes directories may throw it.
class CONFSAVE_API XChdir : public XExternalFailure {
 public:
  /// As XTOOStatus. The message for the person contains `directory`.
  XChdir(int status, bool flag, std::string directory);
  /// As XTOOStatus, with a text.
  XChdir(int status, const char* text, bool flag, std::string directory);

  /// The directory. Owned by this object.
  const std::string& Directory() const { return directory_; }

 private:
  std::string directory_;
};

}  // namespace ConfSave
