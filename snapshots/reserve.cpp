#include "snapshots/reserve.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "snapshots/descriptor.h"

namespace ConfSave::snapshots {
namespace {

/// Where SQLite sees the file: it puts the journal beside the target of a symbolic link.
std::string real_path(const std::string& file) {
  struct Free {
    void operator()(char* text) const { std::free(text); }
  };
  const std::unique_ptr<char, Free> path(realpath(file.c_str(), nullptr));
  return path != nullptr ? path.get() : file;
}

std::string reserve_of(const std::string& storage) { return real_path(storage) + "-reserve"; }
std::string journal_of(const std::string& storage) { return real_path(storage) + "-journal"; }

bool has_room(const std::string& file) {
  struct statvfs disk = {};
  return statvfs(file.c_str(), &disk) == 0 &&
         static_cast<int64>(disk.f_bavail * disk.f_frsize) >= 4 * Reserve::kSize;
}

bool is_whole(const struct stat& status) {
  return status.st_size == Reserve::kSize && int64{status.st_blocks} * 512 >= Reserve::kSize &&
         S_ISREG(status.st_mode);
}

constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_CLOEXEC;

Descriptor open_file(const std::string& file) {
  return beside_streams(Descriptor(::open(file.c_str(), kFlags)));
}

/// In place: takes no room where the blocks are there.
bool clear(const Descriptor& file, int64 size) {
  static const char zeros[64 << 10] = {};
  for (int64 offset = 0; offset < size;) {
    const auto length = static_cast<std::size_t>(std::min<int64>(size - offset, sizeof zeros));
    const ssize_t written = pwrite(file.get(), zeros, length, offset);
    if (written <= 0) return false;
    offset += written;
  }
  return fdatasync(file.get()) == 0;
}

bool give_to_owner(const Descriptor& file, const struct stat& storage) {
  return geteuid() != 0 || fchown(file.get(), storage.st_uid, storage.st_gid) == 0;
}

/// A journal that not every user of the storage may open would lock them out.
bool share_as(const Descriptor& file, const std::string& storage) {
  struct stat status = {};
  return stat(storage.c_str(), &status) == 0 && give_to_owner(file, status) &&
         fchmod(file.get(), status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO)) == 0;
}

}  // namespace

void Reserve::keep(const std::string& storage) {
  const std::string path = reserve_of(storage);
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0 && is_whole(status)) return;
  if (!has_room(real_path(storage))) return;
  // It may be there with another size: a killed process has begun it.
  const Descriptor file =
      beside_streams(Descriptor(::open(path.c_str(), kFlags | O_CREAT, S_IRUSR | S_IWUSR)));
  if (!file) return;
  // Some file systems know no owners.
  if (stat(storage.c_str(), &status) == 0) static_cast<void>(give_to_owner(file, status));
  const bool made = fchmod(file.get(), S_IRUSR | S_IWUSR) == 0 && ftruncate(file.get(), kSize) == 0 &&
                    posix_fallocate(file.get(), 0, kSize) == 0;
  if (!made) unlink(path.c_str());
}

Error Reserve::run(const std::function<Error()>& change) {
  for (;;) {
    Error error = attempt(change);
    if (error.code != Code::no_space || !give_way()) return error;
  }
}

Error Reserve::attempt(const std::function<Error()>& change) {
  return storage_.in_transaction([&] {
    // Nobody else has a journal now.
    if (use_ == Use::journal) become_journal();
    return change();
  });
}

bool Reserve::give_way() {
  if (use_ == Use::deleted) return false;
  if (use_ == Use::none) {
    Result<Statement> mode = storage_.prepare("pragma journal_mode");
    const bool has_journal = mode && mode->step() == SQLITE_ROW && mode->text(0) == "delete";
    use_ = has_journal ? Use::journal : Use::deleted;
  } else {
    use_ = Use::deleted;
  }
  if (use_ == Use::journal) return storage_.run("pragma journal_mode=persist").code == Code::ok;
  // Deletes the journal that was the reserve.
  storage_.run("pragma journal_mode=delete");
  unlink(reserve_of(storage_.file()).c_str());
  return true;
}

void Reserve::become_journal() {
  const std::string path = reserve_of(storage_.file());
  const Descriptor file = open_file(path);
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0 || !is_whole(status)) return;
  // Only the first block says whether there is something to roll back.
  if (!share_as(file, storage_.file()) || !clear(file, 4096)) return;
  // If this fails, SQLite makes a journal of its own.
  static_cast<void>(std::rename(path.c_str(), journal_of(storage_.file()).c_str()));
}

void Reserve::take_back() {
  if (use_ != Use::journal || storage_.run("begin immediate").code != Code::ok) return;
  const std::string path = journal_of(storage_.file());
  const Descriptor file = open_file(path);
  // It has pages of the storage.
  if (file && clear(file, kSize) && ftruncate(file.get(), kSize) == 0 &&
      fchmod(file.get(), S_IRUSR | S_IWUSR) == 0) {
    static_cast<void>(std::rename(path.c_str(), reserve_of(storage_.file()).c_str()));
  }
  storage_.run("rollback");
}

}  // namespace ConfSave::snapshots
