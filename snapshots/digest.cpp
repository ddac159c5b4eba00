#include "snapshots/digest.h"

#include <new>

namespace ConfSave::snapshots {
namespace {

/// With a digest that is built in, OpenSSL fails only when memory runs out.
void require(int result) {
  if (result != 1) throw std::bad_alloc();
}

}  // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  if (context_ == nullptr) throw std::bad_alloc();
  require(EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr));
}

void Sha256::add(const void* bytes, std::size_t size) {
  require(EVP_DigestUpdate(context_.get(), bytes, size));
}

Digest Sha256::finish() {
  Digest digest{};
  require(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr));
  require(EVP_DigestInit_ex(context_.get(), nullptr, nullptr));
  return digest;
}

}  // namespace ConfSave::snapshots
