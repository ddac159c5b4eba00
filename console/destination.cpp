#include "destination.h"

#include <contents.h>
#include <fcntl.h>
#include <glob.h>
#include <places.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <set>
#include <system_error>
#include <utility>

#include "text.h"

namespace console {
namespace {

using Paths = std::vector<std::string>;

/// The existing files that match. The checks of directories leave no pattern in the directory's own path.
Paths matches(const std::string& pattern) {
  glob_t found = {};
  Paths paths;
  if (glob(pattern.c_str(), GLOB_NOSORT, nullptr, &found) == 0) {
    paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  }
  globfree(&found);
  return paths;
}

/// With a slash or a "." at its end a path would lead through a link.
std::string plain(const std::string& path) {
  const std::string normal = std::filesystem::path(path + "/").lexically_normal().string();
  return normal.size() > 1 ? normal.substr(0, normal.size() - 1) : normal;
}

/// Appends what is below a directory, except what cannot be read, or is deleted meanwhile.
void append_below(const std::string& directory, Paths& paths) {
  std::error_code error;
  std::filesystem::recursive_directory_iterator below(
      directory, std::filesystem::directory_options::skip_permission_denied, error);
  for (; !error && below != std::filesystem::end(below); below.increment(error)) {
    paths.push_back(below->path().string());
  }
}

/// Links to directories count as directories here.
bool is_directory(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Why others could lead a restore elsewhere, and what to do about it; empty when they cannot.
std::string flaw_of(const std::string& directory) {
  struct stat status = {};
  if (lstat(directory.c_str(), &status) != 0) return std::string("cannot be examined: ") + strerror(errno);
  if (S_ISLNK(status.st_mode)) return "is a symbolic link. Put a directory in its place";
  if (status.st_uid != geteuid() && status.st_uid != 0) {
    return "belongs to user " + std::to_string(status.st_uid) + ". Change its owner to user " +
           std::to_string(geteuid());
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "can be written to by others. Run: chmod go-w " + directory;
  }
  return "";
}

bool sync_file_system(const std::string& directory) {
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool synced = descriptor != -1 && syncfs(descriptor) == 0;
  const int error = errno;
  if (descriptor != -1) close(descriptor);
  if (synced) return true;
  std::cerr << "confsave: '" << printable(directory) << "' cannot be synced: " << std::strerror(error)
            << ". The files are restored, but may not survive a power cut. Mend the disk and load again.\n";
  return false;
}

}  // namespace

Destination::Destination(std::string target) {
  if (target.empty()) {
    tops_ = {ConfSave::config_directory(), ConfSave::kFailoverDirectory};
  } else {
    tops_ = {std::move(target)};
  }
}

Paths Destination::parents() const {
  std::set<std::string> paths;
  for (const ConfSave::ContentsEntry& entry : ConfSave::contents()) {
    const std::size_t slash = entry.path.find('/');
    if (slash == std::string::npos) continue;
    const std::string path = tops_.front() + entry.path.substr(0, slash);
    if (is_directory(path)) paths.insert(path);
  }
  return {paths.begin(), paths.end()};
}

Paths Destination::members() const {
  Paths paths;
  for (const ConfSave::ContentsEntry& entry : ConfSave::contents()) {
    const bool is_failover = entry.base == ConfSave::Base::failover;
    for (const std::string& path : matches((is_failover ? tops_.back() : tops_.front()) + entry.path)) {
      paths.push_back(path);
      append_below(path, paths);
    }
  }
  return paths;
}

Paths Destination::directories() const {
  Paths paths;
  for (const std::string& top : tops_) paths.push_back(plain(top));
  for (const std::string& path : parents()) paths.push_back(path);
  for (const std::string& path : members()) {
    if (is_directory(path)) paths.push_back(path);
  }
  return paths;
}

bool Destination::is_safe() const {
  for (const std::string& directory : directories()) {
    const std::string flaw = flaw_of(directory);
    if (flaw.empty()) continue;
    std::cerr << "confsave: nothing was restored, because others could lead files elsewhere: '"
              << printable(directory) << "' " << printable(flaw) << ".\n";
    return false;
  }
  return true;
}

bool Destination::sync() const {
  std::set<dev_t> synced;
  const Paths paths = directories();
  return std::all_of(paths.begin(), paths.end(), [&](const std::string& path) {
    struct stat status = {};
    const bool is_new = stat(path.c_str(), &status) != 0 || synced.insert(status.st_dev).second;
    return !is_new || sync_file_system(path);
  });
}

}  // namespace console
