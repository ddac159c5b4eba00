#include "confsave.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "places.h"
#include "throw.h"

namespace ConfSave {
namespace {

constexpr const char* kSource = "source/tempfile";
const ClUnilogFname kRemove{"void ConfSave::TempFile::remove()", "remove"};

[[noreturn]] void throw_system_error(status_code number) {
  throw_text<XTOOStatus>(number, std::strerror(errno));
}

/// Called by a destructor, from which an exception of the host's log would end the process.
void log_failed_removal(const std::string& name, int error) noexcept {
  try {
    if (KovrLogHelper record{1, kRemove, kSource, ""}) {
      record << name << ": failed to remove temporary file: " << std::strerror(error);
    }
  } catch (...) {
    // There is no other place to report it.
  }
}

}  // namespace

TempFile::TempFile() : tmp_fd(-1) {}

TempFile::~TempFile() { remove(); }

void TempFile::create() {
  if (tmp_fd != -1) return;
  std::string path = temporary_directory() + "/XXXXXX";
  tmp_fd = mkstemp(path.data());
  if (tmp_fd == -1) throw_system_error(status_mkstemp);
  tmp_name = std::move(path);
  // tar opens the file by name, which a tight umask could forbid. Failure is ignored: tar reports it.
  fchmod(tmp_fd, S_IRUSR | S_IWUSR);
}

bool TempFile::is_open() const {
  // Hosts count on being asked, although the answer is not used. // Quirk Q23
  temporary_directory();
  return tmp_fd != -1;
}

int TempFile::fd() const {
  if (tmp_fd == -1) throw_status<XTOOStatus>(status_command);
  return tmp_fd;
}

const std::string& TempFile::name() const { return tmp_name; }

int64 TempFile::size() const {
  struct stat status = {};
  if (fstat(fd(), &status) == -1) throw_system_error(status_fstat);
  return status.st_size;
}

void TempFile::rewind() const {
  if (lseek(fd(), 0, SEEK_SET) == -1) throw_system_error(status_lseek);
}

// Forgets the file even when it cannot be deleted. // Quirk Q24
void TempFile::remove() {
  if (tmp_fd == -1) return;
  close(tmp_fd);
  if (unlink(tmp_name.c_str()) == -1) log_failed_removal(tmp_name, errno);
  tmp_name.clear();
  tmp_fd = -1;
}

}  // namespace ConfSave
