#include "snapshots/check_owner.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "places.h"
#include "snapshots/own_file.h"
#include "snapshots/system_error.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

std::string owner_file() { return state_directory() + "/restore.lock"; }

/// Unlike flock(2), this lock can be asked for without being taken.
struct flock whole_file() {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

}  // namespace

Result<CheckOwner> CheckOwner::become(const Snapshot& snapshot) {
  const std::string path = owner_file();
  constexpr mode_t kMode = S_IRUSR | S_IWUSR;
  constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_CLOEXEC;
  // The host runs its check while this is open.
  Descriptor file = beside_streams(Descriptor(open_or_make(path, kFlags)));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0) return system_error(path);
  // Whatever the umask, its owner can open it again.
  if ((status.st_mode & kMode) != kMode && fchmod(file.get(), kMode) != 0) return system_error(path);
  struct flock lock = whole_file();
  if (fcntl(file.get(), F_OFD_SETLK, &lock) != 0) {
    if (errno != EAGAIN && errno != EACCES) return system_error(path);
    return Error{Code::pending, 0, "",
                 "the restore of '" + printable(snapshot.config.name) + "' waits for its check"};
  }
  return CheckOwner(std::move(file));
}

CheckOwner::~CheckOwner() {
  if (!file_) return;
  struct flock lock = whole_file();
  lock.l_type = F_UNLCK;
  fcntl(file_.get(), F_OFD_SETLK, &lock);
}

bool CheckOwner::is_alive() {
  const Descriptor file(open(owner_file().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct flock lock = whole_file();
  return file && fcntl(file.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace ConfSave::snapshots
