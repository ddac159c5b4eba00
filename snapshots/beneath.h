#pragma once

#include <sys/stat.h>

#include <map>
#include <optional>
#include <string>

#include "confsave/snapshots.h"
#include "snapshots/descriptor.h"

namespace ConfSave::snapshots {

/// A directory, and what is beneath it. Paths are relative to it, without "." and ".."; they are opened
/// component by component, and no symbolic link is followed.
class Beneath {
 public:
  /// `path` ends in "/".
  static Result<Beneath> open(const std::string& path);

  const std::string& path() const { return path_; }
  /// The name for a message.
  std::string shown(const std::string& relative) const;
  const struct stat& status() const { return status_; }
  int root() const { return root_.get(); }

  /// The directory at `relative`, empty for the root; this object owns the descriptor, until the next
  /// call. Once opened it stays the same one, wherever it is moved; of many, only the last ones can be
  /// followed, and Code::changed_meanwhile is the error if another one is there. The number of the error is
  /// ENOENT if it is missing; Code::unsafe if something else is in its place.
  Result<int> directory(const std::string& relative);

  /// Whether the directory that was opened, or the root, is still at its path.
  Result<bool> is_in_place(const std::string& relative) const;

  /// Forgets what was opened.
  void forget() { opened_.clear(); }

  /// What is at `relative`; no value if nothing is.
  Result<std::optional<struct stat>> look(const std::string& relative);

  Error failure(const std::string& relative, int number) const;

 private:
  struct Opened {
    Descriptor descriptor;  ///< none if it was closed, to open others
    struct stat status = {};
  };

  Result<Descriptor> walk(const std::string& relative) const;
  /// The directory at `relative` as it is now. Code::changed_meanwhile unless it is that of `opened`.
  Result<Opened> open_again(const std::string& relative, const Opened* opened) const;
  void close_one();

  std::string path_;
  Descriptor root_;
  struct stat status_ = {};
  std::map<std::string, Opened> opened_;
};

/// "a/b" of "a/b/c"; empty without a "/".
std::string parent_of(const std::string& relative);
/// "c" of "a/b/c".
std::string name_of(const std::string& relative);

}  // namespace ConfSave::snapshots
