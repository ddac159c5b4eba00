#pragma once

// A file system with little room, which only this process sees.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace test {

class SmallDisk {
 public:
  /// In the place of the empty directory `dir`.
  SmallDisk(const std::string& dir, long bytes) : dir_(dir) {
    const std::string size = "size=" + std::to_string(bytes);
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, size.c_str()) != 0)
      throw std::runtime_error("mount " + dir);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  ~SmallDisk() { umount2(dir_.c_str(), MNT_DETACH); }

  long free_bytes() const {
    struct statvfs status = {};
    if (statvfs(dir_.c_str(), &status) != 0) throw std::runtime_error("statvfs " + dir_);
    return static_cast<long>(status.f_bavail * status.f_frsize);
  }

  /// Leaves no room: what is free, and what becomes free by the next deletion, another file takes.
  void fill() const {
    const int file = open((dir_ + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file == -1) throw std::runtime_error("open " + dir_ + "/filler");
    const std::string block(4096, 'x');
    while (write(file, block.data(), block.size()) > 0) {
    }
    close(file);
  }

 private:
  std::string dir_;
};

}  // namespace test
