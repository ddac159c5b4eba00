#pragma once

#include <string>
#include <vector>

#include "destination.h"

namespace console {

/// Keeps who may read the files and directories of a destination, and sets it again at its end.
///
/// A restore gives the directories that no archive has an entry for the mode of the umask and the owner of
/// this process. // Quirk Q61
///
/// An archive holds no access control list (ACL). Of a file that has one it holds the mask as the rights of
/// the group, which a restore would grant to the whole group.
class KeptPermissions {
 public:
  explicit KeptPermissions(const Destination& destination);
  KeptPermissions(const KeptPermissions&) = delete;
  KeptPermissions& operator=(const KeptPermissions&) = delete;

  /// Prints what cannot be set again.
  ~KeptPermissions();

 private:
  struct Kept;

  std::vector<Kept> kept_;
};

/// Warns of files whose ACL a snapshot does not hold.
void warn_of_acls(const Destination& source);

}  // namespace console
