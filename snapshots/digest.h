#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <memory>

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
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  std::unique_ptr<EVP_MD_CTX, Free> context_;
};

}  // namespace ConfSave::snapshots
