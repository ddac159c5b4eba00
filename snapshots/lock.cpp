#include "snapshots/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <thread>

#include "places.h"
#include "snapshots/own_file.h"
#include "snapshots/system_error.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

constexpr mode_t kMode = S_IRUSR | S_IWUSR;
constexpr std::chrono::milliseconds kLongestPause{20};

std::string lock_file() { return state_directory() + "/confsave.lock"; }

/// Not closed on exec, so that the commands of a killed process keep the lock.
Result<Descriptor> open_file(const std::string& path) {
  constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  Descriptor file = beside_streams(Descriptor(open_or_make(path, kFlags)), F_DUPFD);
  if (!file) {
    Error error = system_error(path);
    if (error.number == ENOENT) error.code = Code::no_storage;
    return error;
  }
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) return system_error(path);
  if (!S_ISREG(status.st_mode)) return Error{Code::failed, 0, path, "this is not a regular file"};
  // Whatever the umask, its owner can open it again.
  if ((status.st_mode & kMode) != kMode && fchmod(file.get(), kMode) != 0) return system_error(path);
  return file;
}

/// What the holder wrote about itself.
std::string holder(const Descriptor& file) {
  char text[200];
  const ssize_t size = pread(file.get(), text, sizeof text, 0);
  if (size <= 0) return "another process, which does not say what it does";
  const std::string whole(text, static_cast<std::size_t>(size));
  return printable(whole.substr(0, whole.find('\n')));
}

/// False with errno.
bool lock_until(const Descriptor& file, const Deadline& deadline) {
  for (std::chrono::milliseconds pause(1);; pause = std::min(pause * 2, kLongestPause)) {
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    const auto left = deadline.left();
    if (left.count() == 0) {
      errno = EWOULDBLOCK;
      return false;
    }
    std::this_thread::sleep_for(std::min(pause, left));
  }
}

}  // namespace

Result<Lock> Lock::take(const std::string& purpose, const Deadline& deadline) {
  const std::string path = lock_file();
  Result<Descriptor> file = open_file(path);
  if (!file) return file.error();
  if (!lock_until(*file, deadline)) {
    if (errno == EWOULDBLOCK) return Error{Code::busy, 0, path, "the lock is held by " + holder(*file)};
    return system_error(path);
  }
  const std::string text = "process " + std::to_string(getpid()) + ", " + purpose + "\n";
  // For people only, so a failure, as on a full disk, is ignored.
  if (ftruncate(file->get(), 0) == 0 && pwrite(file->get(), text.data(), text.size(), 0) < 0) errno = 0;
  return Lock(std::move(*file));
}

bool Lock::is_taken() {
  const Descriptor file(open(lock_file().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return file && flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

Lock::~Lock() {
  if (!file_) return;
  // While the lock is held, so that the next holder's text is not erased.
  if (ftruncate(file_.get(), 0) != 0) errno = 0;
  flock(file_.get(), LOCK_UN);
}

}  // namespace ConfSave::snapshots
