#pragma once

#include <nettle/sha2.h>

#include <cstddef>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

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
