#pragma once

#include <cstddef>
#include <string_view>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// Packed bytes, read from the start to the end.
class Source {
 public:
  Source() = default;
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  virtual ~Source() = default;

  /// The next bytes, valid until the next call; empty at the end.
  virtual Result<std::string_view> next() = 0;
};

/// Bytes in memory, owned by the caller.
class MemorySource : public Source {
 public:
  explicit MemorySource(std::string_view bytes) : bytes_(bytes) {}
  Result<std::string_view> next() override { return std::exchange(bytes_, {}); }

 private:
  std::string_view bytes_;
};

}  // namespace ConfSave::snapshots
