#include "snapshots/content_check.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include "snapshots/database_logs.h"
#include "snapshots/digest.h"

namespace ConfSave::snapshots {

void ContentCheck::enter(const std::string& directory) {
  directory_ = directory;
  Result<Beneath> root = Beneath::open(directory);
  root_.reset();
  if (root) root_.emplace(std::move(*root));
  locked_paths_ = locked_paths();
}

template <class Task>
void ContentCheck::beside_live(const Task& task) {
  if (!may_be_locked_) return task();
  own_.run(std::cref(task));
}

/// Without a descriptor the file is not compared: who reads the tree says why it cannot be read.
void ContentCheck::open_live(const std::string& path) {
  if (!root_) return;
  may_be_locked_ = locked_paths_.count(path) != 0;
  if (!may_be_locked_) return open_below(*root_, path);
  own_.run([&] {
    Result<Beneath> root = Beneath::open(directory_);
    if (root) open_below(*root, path);
  });
}

void ContentCheck::close_live() {
  if (live_) beside_live([this] { live_ = Descriptor(); });
}

bool ContentCheck::close_unchanged_live() {
  bool is_unchanged = false;
  beside_live([&] {
    struct stat now = {};
    is_unchanged = fstat(live_.get(), &now) == 0 && is_same(stamp_, stamp_of(now));
    live_ = Descriptor();
  });
  return is_unchanged;
}

void ContentCheck::open_below(Beneath& root, const std::string& path) {
  const Result<int> parent = root.directory(parent_of(path));
  if (!parent) return;
  live_ = Descriptor(
      openat(*parent, name_of(path).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status = {};
  if (!live_ || fstat(live_.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    live_ = Descriptor();
    return;
  }
  stamp_ = stamp_of(status);
}

void ContentCheck::begin(const Entry& entry) {
  path_ = directory_ + entry.path;
  // Of entries with the same path the last one counts.
  known_.erase(path_);
  close_live();
  known_early_ = nullptr;
  checksum_ = 0;
  is_equal_ = false;
  if (entry.kind != Kind::file && entry.kind != Kind::hardlink) return;
  open_live(entry.path);
  if (!live_) return;
  is_equal_ = stamp_.size == entry.size;
  if (entry.kind == Kind::file) {
    if (early_ != nullptr) known_early_ = early_->find(path_, stamp_);
    return;
  }
  const auto file = known_.find(directory_ + entry.target);
  if (file != known_.end() && is_same(file->second.stamp, stamp_)) known_.emplace(path_, file->second);
}

void ContentCheck::add(std::string_view piece) {
  if (known_early_ != nullptr) checksum_ = crc32(checksum_, piece);
  if (live_ && is_equal_) beside_live([&] { is_equal_ = goes_on_with(piece); });
}

bool ContentCheck::goes_on_with(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t size = read(live_.get(), buffer_.data(), std::min(bytes.size(), buffer_.size()));
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) live_ = Descriptor();  // What cannot be read is not known to differ.
    if (size <= 0 || std::memcmp(bytes.data(), buffer_.data(), static_cast<std::size_t>(size)) != 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(size));
  }
  return true;
}

Digest ContentCheck::end(const Digest& computed) {
  Digest digest = computed;
  if (known_early_ != nullptr) {
    digest = known_early_->member.sha256;
    is_equal_ = is_equal_ && checksum_ == known_early_->checksum;
    // Any other one will do for a content that is not the one that was digested.
    if (!is_equal_) digest.front() ^= 1U;
  }
  const bool was_read = live_ && close_unchanged_live();
  if (!was_read || (!is_equal_ && computes_digests())) return digest;
  Known& known = known_[path_];
  known = {stamp_, digest};
  if (!is_equal_) known.digest.front() ^= 1U;
  return digest;
}

const Digest* ContentCheck::digest_of(const std::string& path, const Stamp& stamp) const {
  const auto found = known_.find(path);
  return found != known_.end() && is_same(found->second.stamp, stamp) ? &found->second.digest : nullptr;
}

bool ContentCheck::needs_digests(const Member& archived, const LiveMember& live) const {
  const auto is_file = [](const Member& member) {
    return member.kind == Kind::file || member.kind == Kind::hardlink;
  };
  return !computes_digests() && is_file(archived) && is_file(live.member) &&
         archived.size == live.member.size && digest_of(live.member.path, live.stamp) == nullptr;
}

}  // namespace ConfSave::snapshots
