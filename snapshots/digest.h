#pragma once

#include <nettle/sha2.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// The CRC-32 of what has the CRC-32 `before`, followed by `bytes`.
std::uint32_t crc32(std::uint32_t before, std::string_view bytes);

/// A SHA-256 in progress.
class Sha256 {
 public:
  Sha256();

  void add(const void* bytes, std::size_t size);

  /// The digest of everything that was added. Starts anew.
  Digest finish();

 private:
  sha256_ctx context_;
};

}  // namespace ConfSave::snapshots
