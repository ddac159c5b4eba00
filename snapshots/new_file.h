#pragma once

#include <string>
#include <vector>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// A file of mode 0600 that is made under a temporary name, and deleted with this object unless it got its
/// own name.
class NewFile {
 public:
  /// A new name that begins with `prefix`: six letters follow.
  static Result<NewFile> make(const std::string& prefix);

  NewFile(NewFile&& other) noexcept : name_(std::move(other.name_)) { other.name_.clear(); }
  NewFile& operator=(NewFile&& other) = delete;
  ~NewFile();

  const std::string& name() const { return name_; }

  /// Deletes it. Who has it open can still read it.
  void remove();

  /// Gives it the name `file`, durably with its content; Code::taken if that exists and `overwrite` is
  /// false. That the name is not durable is a warning.
  Error publish(const std::string& file, bool overwrite, std::vector<std::string>& warnings);

 private:
  explicit NewFile(std::string name) : name_(std::move(name)) {}

  std::string name_;
};

/// The directory of a path, ending in "/" unless it is empty.
std::string directory_part(const std::string& path);

/// Whether a file can be exported under this name: Code::taken if it exists and `overwrite` is false. What
/// is no regular file, or is the library's own, is never replaced, nor is a name of these given away.
Error check_destination(const std::string& file, bool overwrite);

}  // namespace ConfSave::snapshots
