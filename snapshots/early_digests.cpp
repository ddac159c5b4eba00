#include "snapshots/early_digests.h"

#include <new>
#include <system_error>
#include <utility>

#include "snapshots/blocked_signals.h"
#include "snapshots/libarchive.h"

namespace ConfSave::snapshots {
namespace {

Tree read_live_files(const std::vector<TreePart>& parts) {
  try {
    static_cast<void>(libarchive());
    Result<Tree> tree = read_parts(parts);
    return tree ? std::move(*tree) : Tree{};
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::future<Tree> start(std::vector<TreePart> parts) {
  const BlockedSignals blocked;
  try {
    return std::async(std::launch::async, [parts = std::move(parts)] { return read_live_files(parts); });
  } catch (const std::system_error&) {
    return {};
  }
}

}  // namespace

// The platform may not be asked in another thread while it packs.
EarlyDigests::EarlyDigests(conftype type) : reading_(start(parts_of(type))) {}

void EarlyDigests::wait() {
  if (!reading_.valid()) return;
  tree_ = reading_.get();
  known_.emplace(tree_);
}

const LiveMember* EarlyDigests::find(const std::string& path, const Stamp& stamp) const {
  if (!known_ || known_->digest_of(path, stamp) == nullptr) return nullptr;
  return &tree_.members.at(path);
}

void EarlyDigests::forget() {
  known_.reset();
  tree_.members.clear();
}

}  // namespace ConfSave::snapshots
