#pragma once

// The directories that a restore writes into: the configuration directory and the failover directory, or
// the target; below them the directories that the contents name.

#include <string>
#include <vector>

namespace console {

class Destination {
 public:
  /// `target` ends in "/"; empty for the configuration directory and the failover directory.
  explicit Destination(std::string target);

  /// True if this process's user or root owns every directory, nobody else can write to it, and none is a
  /// symbolic link: otherwise a restore can be led elsewhere. Prints what is wrong.
  bool is_safe() const;

  /// Writes to disk what the restore wrote. Prints what cannot be written.
  bool sync() const;

  /// Every existing directory, the top ones first, and every symbolic link to one.
  std::vector<std::string> directories() const;

  /// Every existing file and directory that the contents name, and what is below them.
  std::vector<std::string> members() const;

  /// The directories that no archive has an entry for.
  std::vector<std::string> parents() const;

 private:
  std::vector<std::string> tops_;  ///< each ends in "/"
};

}  // namespace console
