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
  /// What unpacks counts its input in 32 bits.
  static constexpr std::size_t kPiece = std::size_t{1} << 30;

  explicit MemorySource(std::string_view bytes) : bytes_(bytes) {}
  Result<std::string_view> next() override {
    const std::string_view piece = bytes_.substr(0, kPiece);
    bytes_.remove_prefix(piece.size());
    return piece;
  }

 private:
  std::string_view bytes_;
};

}  // namespace ConfSave::snapshots
