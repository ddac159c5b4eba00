#include "snapshots/digest.h"

#include <isa-l/crc.h>

namespace ConfSave::snapshots {

std::uint32_t crc32(std::uint32_t before, std::string_view bytes) {
  return crc32_gzip_refl(before, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

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
