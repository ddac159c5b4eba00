#include "snapshots/tree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "snapshots/beneath.h"
#include "snapshots/descriptor.h"
#include "snapshots/digest.h"
#include "snapshots/member_collector.h"
#include "snapshots/own_descriptors.h"
#include "snapshots/saved_digests.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

constexpr int kAttempts = 3;
constexpr std::size_t kPiece = 128 << 10;

/// Reads what belongs to one of the two directories.
class TreeReading {
 public:
  TreeReading(const TreePart& part, const Limits& limits, const KnownDigests* known, Tree& tree,
              std::vector<std::string>* unreadable, OwnDescriptors& own)
      : part_(part),
        base_(part.directory),
        limits_(limits),
        known_(known),
        members_(tree.members),
        sockets_(tree.sockets),
        unreadable_(unreadable),
        own_(own) {}

  Error run() {
    if (Error error = add_entries(part_.paths); error.code != Code::ok) return error;
    enters_directories_ = false;
    return add_entries(part_.alone);
  }

 private:
  Error add_entries(const std::vector<std::string>& paths) {
    root_ = Descriptor(open(base_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root_) return errno == ENOENT ? Error{} : failure("");
    parent_.reset();
    for (const std::string& path : paths) {
      Error error = add_entry(path);
      if (is_unreadable(error, error.path)) continue;
      if (error.code != Code::ok) return error;
    }
    return {};
  }

  /// True if `path` was put where the caller wants such paths.
  bool is_unreadable(const Error& error, const std::string& path) {
    if (error.code != Code::denied || unreadable_ == nullptr) return false;
    unreadable_->push_back(path);
    return true;
  }

  Error failure(const std::string& path, int number = errno) const {
    const Code code = number == EACCES || number == EPERM ? Code::denied : Code::failed;
    return {code, number, printable(base_ + path), std::strerror(number)};
  }

  Error unsafe(const std::string& path, const char* text) const {
    return {Code::unsafe, 0, printable(base_ + path), text};
  }

  /// An entry of the contents: a path, or a pattern with "*" at its end.
  Error add_entry(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string parent = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string name = path.substr(parent.size());
    if (parent_ != parent) {
      parent_.reset();
      if (Error error = open_parent(parent, parent_directory_); error.code != Code::ok) return error;
      parent_ = parent;
    }
    if (!parent_directory_) return {};
    if (name.back() != '*') return add(parent_directory_.get(), parent, name);
    return add_matching(parent_directory_, parent, name.substr(0, name.size() - 1));
  }

  /// Opens "a/b/" component by component. No descriptor if one is missing.
  Error open_parent(const std::string& parent, Descriptor& directory) const {
    directory = Descriptor(fcntl(root_.get(), F_DUPFD_CLOEXEC, 0));
    if (!directory) return failure("");
    for (std::size_t start = 0; start < parent.size();) {
      const std::size_t end = parent.find('/', start);
      const std::string part = parent.substr(start, end - start);
      start = end + 1;
      Descriptor next(
          openat(directory.get(), part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (!next && errno == ENOENT) {
        directory = Descriptor();
        return {};
      }
      if (!next && (errno == ELOOP || errno == ENOTDIR)) {
        return unsafe(parent.substr(0, end), "this is not a directory; a link is not followed");
      }
      if (!next) return failure(parent.substr(0, end));
      std::swap(directory, next);
    }
    return {};
  }

  Error names_in(int descriptor, const std::string& path, std::vector<std::string>& names) const {
    const Directory directory =
        directory_of(Descriptor(openat(descriptor, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    if (directory == nullptr) return failure(path);
    errno = 0;
    while (const dirent* entry = readdir(directory.get())) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
      errno = 0;
    }
    return errno == 0 ? Error{} : failure(path);
  }

  Error add_matching(const Descriptor& directory, const std::string& parent, const std::string& prefix) {
    std::vector<std::string> names;
    if (Error error = names_in(directory.get(), parent, names); error.code != Code::ok) return error;
    for (const std::string& name : names) {
      if (!begins_with(name, prefix)) continue;
      if (Error error = add(directory.get(), parent, name); error.code != Code::ok) return error;
    }
    return {};
  }

  // Directories are in directories; the depth has a limit. NOLINTBEGIN(misc-no-recursion)

  /// The file, link or directory with all below it, if it is there and may be read.
  Error add(int directory, const std::string& parent, const std::string& name) {
    const std::size_t depth = depth_;
    const std::string path = base_ + (parent + name);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      Error error = add_once(directory, parent, name);
      const bool unreadable = is_unreadable(error, path);
      if (!unreadable && !is_gone(error.number)) return error;
      depth_ = depth;
      if (unreadable) return {};
      members_.erase(path);
    }
    return {Code::changed_meanwhile, 0, printable(path), "the file changes while it is read"};
  }

  /// Whether something else, or nothing, has come into the place of a file since it was looked at.
  static bool is_gone(int number) {
    return number == ENOENT || number == ENOTDIR || number == ELOOP || number == EINVAL || number == ENXIO;
  }

  Error add_once(int directory, const std::string& parent, const std::string& name) {
    const std::string path = parent + name;
    struct stat status = {};
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      return errno == ENOENT ? Error{} : failure(path);
    }
    if (static_cast<int64>(members_.size()) >= limits_.members) {
      return {Code::failed, 0, printable(base_ + path),
              "a snapshot has at most " + std::to_string(limits_.members) +
                  " files; take some out of the configuration"};
    }
    switch (status.st_mode & S_IFMT) {
      case S_IFREG:
        if (add_known(path, status)) return {};
        return part_.locked.count(path) == 0 ? add_file(directory, path, name) : add_locked(path);
      case S_IFLNK:
        return add_link(directory, path, name, status);
      case S_IFDIR:
        return add_directory(directory, path, name);
      case S_IFSOCK:
        sockets_.insert(base_ + path);
        return {};  // Neither does tar pack it.
      default:
        return unsafe(path, "this is a device or a FIFO");
    }
  }

  Error add_directory(int parent, const std::string& path, const std::string& name) {
    if (++depth_ > limits_.depth) return unsafe(path, "the directories are too deep");
    const Descriptor directory(
        openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!directory || fstat(directory.get(), &status) != 0) return failure(path);
    keep(describe(path, Kind::directory, status), status);
    --depth_;
    return enters_directories_ ? add_children(directory, path) : Error{};
  }

  Error add_children(const Descriptor& directory, const std::string& path) {
    ++depth_;
    std::vector<std::string> names;
    if (Error error = names_in(directory.get(), path, names); error.code != Code::ok) return error;
    for (const std::string& child : names) {
      if (Error error = add(directory.get(), path + "/", child); error.code != Code::ok) return error;
    }
    --depth_;
    return {};
  }

  // NOLINTEND(misc-no-recursion)

  Member describe(const std::string& path, Kind kind, const struct stat& status) const {
    Member member;
    member.path = base_ + path;
    member.kind = kind;
    member.mode = status.st_mode & 07777U;
    member.uid = status.st_uid;
    member.gid = status.st_gid;
    member.time = status.st_mtim.tv_sec;
    member.secret = part_.secrets.contains(path);
    return member;
  }

  bool add_known(const std::string& path, const struct stat& status) {
    const Digest* digest = known_ != nullptr ? known_->digest_of(base_ + path, stamp_of(status)) : nullptr;
    if (digest == nullptr) return false;
    Member member = describe(path, Kind::file, status);
    member.size = status.st_size;
    member.sha256 = *digest;
    keep(member, status);
    return true;
  }

  void keep(const Member& member, const struct stat& status, std::uint32_t checksum = 0) {
    members_[member.path] = {member, stamp_of(status), checksum};
  }

  Error add_link(int directory, const std::string& path, const std::string& name,
                 const struct stat& status) {
    std::string target(PATH_MAX, '\0');
    const ssize_t size = readlinkat(directory, name.c_str(), target.data(), target.size());
    if (size < 0) return failure(path);
    target.resize(static_cast<std::size_t>(size));
    Member member = describe(path, Kind::symlink, status);
    member.target = target;
    sha256_.add(target.data(), target.size());
    member.sha256 = sha256_.finish();
    keep(member, status);
    return {};
  }

  /// A file that the host may have locks on. The descriptors of its directory are others there.
  Error add_locked(const std::string& path) {
    Error error;
    own_.run([&] {
      Result<Beneath> root = Beneath::open(base_);
      const Result<int> parent = root ? root->directory(parent_of(path)) : root.error();
      error = parent ? add_file(*parent, path, name_of(path)) : parent.error();
    });
    return error;
  }

  Error add_file(int directory, const std::string& path, const std::string& name) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      const Descriptor file(
          openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
      struct stat before = {};
      struct stat after = {};
      if (!file || fstat(file.get(), &before) != 0) return failure(path);
      if (!S_ISREG(before.st_mode)) return failure(path, ENOTDIR);
      Member member = describe(path, Kind::file, before);
      member.size = before.st_size;
      int64 size = 0;
      if (Error error = digest(file.get(), path, size); error.code != Code::ok) return error;
      member.sha256 = sha256_.finish();
      if (fstat(file.get(), &after) != 0) return failure(path);
      if (!is_same(stamp_of(before), stamp_of(after)) || size != before.st_size) continue;
      keep(member, after, checksum_);
      return {};
    }
    return {Code::changed_meanwhile, 0, printable(base_ + path), "the file changes while it is read"};
  }

  Error digest(int file, const std::string& path, int64& size) {
    buffer_.resize(kPiece);
    checksum_ = 0;
    for (;;) {
      const ssize_t piece = read(file, buffer_.data(), buffer_.size());
      if (piece < 0 && errno == EINTR) continue;
      if (piece < 0) {
        const int number = errno;
        sha256_.finish();
        return failure(path, number);
      }
      if (piece == 0) return {};
      size += piece;
      sha256_.add(buffer_.data(), static_cast<std::size_t>(piece));
      checksum_ = crc32(checksum_, {buffer_.data(), static_cast<std::size_t>(piece)});
    }
  }

  const TreePart& part_;
  const std::string& base_;
  const Limits& limits_;
  const KnownDigests* known_;
  std::map<std::string, LiveMember>& members_;
  std::set<std::string>& sockets_;
  std::vector<std::string>* unreadable_;
  OwnDescriptors& own_;
  Descriptor root_;
  std::optional<std::string> parent_;  ///< of the last entry; most entries share theirs
  Descriptor parent_directory_;        ///< none if it is missing
  Sha256 sha256_;
  std::uint32_t checksum_ = 0;
  std::vector<char> buffer_;
  std::size_t depth_ = 0;
  bool enters_directories_ = true;
};

Result<Tree> read(const std::vector<TreePart>& parts, const Limits& limits, const KnownDigests* known,
                  std::vector<std::string>* unreadable) {
  Tree tree{known != nullptr ? known->moment() : now(), {}, {}};
  OwnDescriptors own;
  for (const TreePart& part : parts) {
    TreeReading reading(part, limits, known, tree, unreadable, own);
    if (Error error = reading.run(); error.code != Code::ok) return error;
  }
  return tree;
}

}  // namespace

KnownDigests::KnownDigests() : moment_(now()) {}

Result<Tree> read_tree(conftype type, const Limits& limits, std::vector<std::string>* unreadable,
                       const KnownDigests* known) {
  return read(parts_of(type), limits, known, unreadable);
}

Result<Tree> read_parts(const std::vector<TreePart>& parts, const KnownDigests* known) {
  return read(parts, Limits{}, known, nullptr);
}

Result<Tree> read_tree_since(const Tree& saved, conftype type, const Limits& limits) {
  const SavedDigests known(saved);
  return read(parts_of(type), limits, &known, nullptr);
}

}  // namespace ConfSave::snapshots
