#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "confsave/snapshots.h"
#include "contents.h"

namespace ConfSave::snapshots {

/// Files that a plan has decoded and that will be staged, as far as there is room: what is here is not
/// decoded again.
class DecodedFiles {
 public:
  /// `room` in bytes.
  explicit DecodedFiles(std::size_t room = 0) : room_(room), left_(room) {}

  void clear() { *this = DecodedFiles(room_); }

  void begin();
  void add(std::string_view piece);
  /// Keeps the file that was added last, under the number of its entry, if it fits.
  void keep(Base base, int64 entry);

  /// The content; null if it has to be decoded.
  const std::string* find(Base base, int64 entry) const;

 private:
  std::size_t room_;
  std::size_t left_;
  std::string current_;
  bool fits_ = false;
  std::map<std::pair<Base, int64>, std::string> files_;
};

}  // namespace ConfSave::snapshots
