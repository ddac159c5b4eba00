#include "snapshots/digest.h"

namespace ConfSave::snapshots {

Sha256::Sha256() : context_{} { sha256_init(&context_); }

void Sha256::add(const void* bytes, std::size_t size) {
  sha256_update(&context_, size, static_cast<const std::uint8_t*>(bytes));
}

Digest Sha256::finish() {
  Digest digest{};
  sha256_digest(&context_, digest.size(), digest.data());
  return digest;
}

}  // namespace ConfSave::snapshots
