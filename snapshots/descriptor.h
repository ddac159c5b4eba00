#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace ConfSave::snapshots {

/// Owns a file descriptor, or none.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() {
    if (number_ != -1) close(number_);
  }

  int get() const { return number_; }
  /// Somebody else owns it from now on.
  void release() { number_ = -1; }
  explicit operator bool() const { return number_ != -1; }

 private:
  int number_;
};

/// The same file with a number that no standard stream has: a host may have closed its own, and what it
/// prints must not end up in a file that is written. `how` is F_DUPFD for one that stays open on exec.
inline Descriptor beside_streams(Descriptor opened, int how = F_DUPFD_CLOEXEC) {
  if (opened && opened.get() <= STDERR_FILENO) {
    opened = Descriptor(fcntl(opened.get(), how, STDERR_FILENO + 1));
  }
  return opened;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

/// Returns nullptr with errno unless `opened` is the descriptor of a directory.
inline Directory directory_of(Descriptor opened) {
  Directory directory(opened ? fdopendir(opened.get()) : nullptr);
  if (directory != nullptr) opened.release();
  return directory;
}

}  // namespace ConfSave::snapshots
