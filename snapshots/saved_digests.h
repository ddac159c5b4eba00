#pragma once

#include <algorithm>
#include <string>

#include "snapshots/tree.h"

namespace ConfSave::snapshots {

/// What a tree of the past says of files that did not change since.
class SavedDigests : public KnownDigests {
 public:
  /// `saved` must outlive this object.
  explicit SavedDigests(const Tree& saved) : saved_(saved), is_past_(saved.moment <= moment()) {}

  const Digest* digest_of(const std::string& path, const Stamp& stamp) const override {
    const auto found = saved_.members.find(path);
    if (!is_past_ || found == saved_.members.end()) return nullptr;
    const LiveMember& before = found->second;
    const bool is_file = before.member.kind == Kind::file || before.member.kind == Kind::hardlink;
    const bool is_old = std::max(stamp.modified, stamp.changed) + kCoarsestTick < saved_.moment;
    return is_file && is_old && is_same(before.stamp, stamp) ? &before.member.sha256 : nullptr;
  }

 private:
  /// Nanoseconds. File systems store times in steps of up to two seconds.
  static constexpr int64 kCoarsestTick = 2000000000;

  const Tree& saved_;
  bool is_past_;
};

}  // namespace ConfSave::snapshots
