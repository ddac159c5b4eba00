#include "snapshots/beneath.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "snapshots/system_error.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
/// A configuration has few directories; a process has few descriptors.
constexpr std::size_t kMostOpened = 64;

}  // namespace

std::string parent_of(const std::string& relative) {
  const std::size_t slash = relative.rfind('/');
  return slash == std::string::npos ? "" : relative.substr(0, slash);
}

std::string name_of(const std::string& relative) { return relative.substr(relative.rfind('/') + 1); }

Result<Beneath> Beneath::open(const std::string& path) {
  Beneath beneath;
  beneath.path_ = path;
  beneath.root_ = Descriptor(::open(path.c_str(), kDirectory));
  if (!beneath.root_ || fstat(beneath.root_.get(), &beneath.status_) != 0) {
    return system_error(printable(path));
  }
  return beneath;
}

std::string Beneath::shown(const std::string& relative) const { return printable(path_ + relative); }

Error Beneath::failure(const std::string& relative, int number) const {
  return system_error(shown(relative), number);
}

Result<Descriptor> Beneath::walk(const std::string& relative) const {
  Descriptor directory(openat(root_.get(), ".", kDirectory));
  if (!directory) return failure("", errno);
  for (std::size_t start = 0; start < relative.size();) {
    const std::size_t end = std::min(relative.find('/', start), relative.size());
    const std::string part = relative.substr(start, end - start);
    start = end + 1;
    Descriptor next(openat(directory.get(), part.c_str(), kDirectory | O_NOFOLLOW));
    if (!next && (errno == ELOOP || errno == ENOTDIR)) {
      return Error{Code::unsafe, ENOTDIR, shown(relative.substr(0, end)),
                   "this is not a directory; a link is not followed"};
    }
    if (!next) return failure(relative.substr(0, end), errno);
    std::swap(directory, next);
  }
  return directory;
}

Result<Beneath::Opened> Beneath::open_again(const std::string& relative, const Opened* opened) const {
  Result<Descriptor> found = walk(relative);
  if (!found) return found.error();
  Opened now{std::move(*found), {}};
  if (fstat(now.descriptor.get(), &now.status) != 0) return failure(relative, errno);
  const bool is_it = opened == nullptr || (now.status.st_ino == opened->status.st_ino &&
                                           now.status.st_dev == opened->status.st_dev);
  if (is_it) return now;
  return Error{Code::changed_meanwhile, 0, shown(relative), "this is another directory than before"};
}

void Beneath::close_one() {
  const auto is_open = [](const auto& entry) { return static_cast<bool>(entry.second.descriptor); };
  if (static_cast<std::size_t>(std::count_if(opened_.begin(), opened_.end(), is_open)) < kMostOpened)
    return;
  std::find_if(opened_.begin(), opened_.end(), is_open)->second.descriptor = Descriptor();
}

Result<int> Beneath::directory(const std::string& relative) {
  if (relative.empty()) return root_.get();
  const auto found = opened_.find(relative);
  if (found != opened_.end() && found->second.descriptor) return found->second.descriptor.get();
  Result<Opened> opened = open_again(relative, found != opened_.end() ? &found->second : nullptr);
  if (!opened) return opened.error();
  close_one();
  return opened_.insert_or_assign(relative, std::move(*opened)).first->second.descriptor.get();
}

Result<bool> Beneath::is_in_place(const std::string& relative) const {
  if (relative.empty()) {
    struct stat now = {};
    if (stat(path_.c_str(), &now) == 0) {
      return now.st_ino == status_.st_ino && now.st_dev == status_.st_dev;
    }
    if (errno == ENOENT || errno == ENOTDIR) return false;
    return failure("", errno);
  }
  const auto found = opened_.find(relative);
  if (found == opened_.end()) return true;
  const Result<Opened> now = open_again(relative, &found->second);
  if (now) return true;
  const Error& error = now.error();
  if (error.code == Code::changed_meanwhile || error.number == ENOENT || error.number == ENOTDIR)
    return false;
  return error;
}

Result<std::optional<struct stat>> Beneath::look(const std::string& relative) {
  const Result<int> parent = directory(parent_of(relative));
  if (!parent) {
    const bool is_missing = parent.error().number == ENOENT || parent.error().number == ENOTDIR;
    if (is_missing) return std::optional<struct stat>();
    return parent.error();
  }
  struct stat status = {};
  if (fstatat(*parent, name_of(relative).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    return std::optional<struct stat>(status);
  }
  if (errno == ENOENT) return std::optional<struct stat>();
  return failure(relative, errno);
}

}  // namespace ConfSave::snapshots
