#include "snapshots/own_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "places.h"
#include "snapshots/descriptor.h"
#include "snapshots/new_file.h"
#include "snapshots/system_error.h"

namespace ConfSave::snapshots {
namespace {

constexpr mode_t kMode = S_IRUSR | S_IWUSR;

bool is_same(const char* one, const char* other) {
  struct stat first = {};
  struct stat second = {};
  return stat(one, &first) == 0 && stat(other, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

/// Who owns the state directory could not open what root makes there.
void share_with_owner(int file) {
  struct stat state = {};
  if (geteuid() != 0 || stat((state_directory() + "/").c_str(), &state) != 0 || state.st_uid == 0) return;
  // Some file systems know no owners: everybody can open the file there.
  if (fchown(file, state.st_uid, state.st_gid) != 0) errno = 0;
}

}  // namespace

Error make_unless_there(const std::string& file) {
  constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC;
  const Descriptor made = beside_streams(Descriptor(open(file.c_str(), kFlags, kMode)));
  if (!made) return errno == EEXIST ? Error{} : system_error(file);
  share_with_owner(made.get());
  return fchmod(made.get(), kMode) == 0 ? Error{} : system_error(file);
}

Error make_own_file(const std::string& file) {
  if (Error error = make_unless_there(file); error.code != Code::ok) return error;
  struct stat status = {};
  if (lstat(file.c_str(), &status) != 0) return system_error(file);
  if (S_ISDIR(status.st_mode)) return system_error(file, EISDIR);
  if (S_ISLNK(status.st_mode)) return system_error(file, ELOOP);
  return chmod(file.c_str(), kMode) == 0 ? Error{} : system_error(file);
}

int open_or_make(const std::string& file, int flags) {
  const int made = open(file.c_str(), flags | O_CREAT | O_EXCL, kMode);
  if (made >= 0) share_with_owner(made);
  return made >= 0 || errno != EEXIST ? made : open(file.c_str(), flags | O_CREAT, kMode);
}

bool is_own_file(const std::string& file) {
  const std::string state = state_directory() + "/";
  const std::string directory = directory_part(file);
  const bool is_there = is_same(directory.empty() ? "." : directory.c_str(), state.c_str());
  for (const char* own : {"storage.db", "notes.db", "restore.db", "confsave.lock", "restore.lock"}) {
    for (const char* end : {"", "-journal", "-wal", "-shm", "-reserve", "-summary"}) {
      const std::string name = std::string(own) + end;
      if (is_there && file.substr(directory.size()) == name) return true;
      if (is_same((state + name).c_str(), file.c_str())) return true;
    }
  }
  return false;
}

}  // namespace ConfSave::snapshots
