#include "snapshots/content_check.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include "contents.h"
#include "snapshots/database_logs.h"
#include "snapshots/digest.h"

namespace ConfSave::snapshots {
namespace {

constexpr int kHow = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

}  // namespace

void ContentCheck::enter(const std::string& directory) {
  directory_ = directory;
  Result<Beneath> root = Beneath::open(directory);
  root_.reset();
  if (root) root_.emplace(std::move(*root));
  locked_paths_ = locked_paths();
  held_ = nullptr;
  small_.reset();
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
  if (!small_) hold_small_files();
  if (const auto found = small_->find(path); found != small_->end()) {
    held_ = &found->second;
    stamp_ = held_->stamp;
    return;
  }
  own_.run([&] {
    Result<Beneath> root = Beneath::open(directory_);
    if (root) open_below(*root, path);
  });
}

void ContentCheck::hold_small_files() {
  small_.emplace();
  own_.run([this] {
    Result<Beneath> root = Beneath::open(directory_);
    if (!root) return;
    for (const std::string& path : packed_database_files("")) {
      if (std::optional<Held> held = held_of(*root, path)) small_->emplace(path, std::move(*held));
    }
  });
}

/// No value of what is large, changes, or cannot be read.
std::optional<ContentCheck::Held> ContentCheck::held_of(Beneath& root, const std::string& path) {
  const Result<int> parent = root.directory(parent_of(path));
  if (!parent) return {};
  const Descriptor file(openat(*parent, name_of(path).c_str(), kHow));
  struct stat before = {};
  struct stat after = {};
  if (!file || fstat(file.get(), &before) != 0 || !S_ISREG(before.st_mode)) return {};
  if (before.st_size >= static_cast<off_t>(kPiece)) return {};
  std::string content(kPiece, '\0');
  const ssize_t size = read(file.get(), content.data(), content.size());
  const bool is_whole = size == before.st_size && fstat(file.get(), &after) == 0 &&
                        is_same(stamp_of(before), stamp_of(after));
  if (!is_whole) return {};
  content.resize(static_cast<std::size_t>(size));
  return Held{stamp_of(before), std::move(content)};
}

void ContentCheck::close_live() {
  held_ = nullptr;
  compared_ = 0;
  if (live_) beside_live([this] { live_ = Descriptor(); });
}

bool ContentCheck::close_unchanged_live() {
  bool is_unchanged = held_ != nullptr;
  if (is_unchanged) {
    close_live();
    return true;
  }
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
  live_ = Descriptor(openat(*parent, name_of(path).c_str(), kHow));
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
  if (!is_open()) return;
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
  if (!is_equal_) return;
  if (held_ != nullptr) {
    is_equal_ = held_->content.compare(compared_, piece.size(), piece) == 0;
    compared_ += piece.size();
  }
  if (live_) beside_live([&] { is_equal_ = goes_on_with(piece); });
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
  const bool was_read = is_open() && close_unchanged_live();
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
