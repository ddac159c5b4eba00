#include "snapshots/own_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "snapshots/descriptor.h"
#include "snapshots/system_error.h"

namespace ConfSave::snapshots {

Error make_own_file(const std::string& file) {
  constexpr mode_t kMode = S_IRUSR | S_IWUSR;
  const Descriptor made(open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  if (made) return fchmod(made.get(), kMode) == 0 ? Error{} : system_error(file);
  if (errno != EEXIST) return system_error(file);
  struct stat status = {};
  if (lstat(file.c_str(), &status) != 0) return system_error(file);
  if (S_ISDIR(status.st_mode)) return system_error(file, EISDIR);
  if (S_ISLNK(status.st_mode)) return system_error(file, ELOOP);
  return chmod(file.c_str(), kMode) == 0 ? Error{} : system_error(file);
}

}  // namespace ConfSave::snapshots
