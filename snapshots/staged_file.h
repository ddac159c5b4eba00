#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "confsave/snapshots.h"
#include "snapshots/descriptor.h"

namespace ConfSave::snapshots {

/// A new file, for its owner only, that is being written. Functions return false with errno.
class StagedFile {
 public:
  StagedFile(int directory, const std::string& name);

  int get() const { return file_.get(); }
  explicit operator bool() const { return static_cast<bool>(file_); }

  /// Blocks of zeros become holes.
  bool add(std::string_view piece);

  /// Sets the size, which may end in a hole.
  bool finish();

  int64 size() const { return size_; }

 private:
  std::size_t to_block_end() const;
  std::string_view up_to_hole(std::string_view piece) const;
  bool write_all(std::string_view bytes);

  Descriptor file_;
  int64 size_ = 0;
};

}  // namespace ConfSave::snapshots
