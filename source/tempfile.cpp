#include "confsave.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kelmor/paths.h"
#include "log.h"

namespace ConfSave {
namespace {

constexpr const char* kSource = "source/tempfile";
const ClUnilogFname kRemove{"void ConfSave::TempFile::remove()", "remove"};

std::string temporary_directory() {
  return toolsunix::FilenameConvertor::Instance().GetFullDirName(toolsunix::path::DirectoryId{1});
}

[[noreturn]] void throw_system_error(int status) { throw XTOOStatus(status, std::strerror(errno), false); }

}  // namespace

TempFile::TempFile() : tmp_fd(-1) {}

TempFile::~TempFile() { remove(); }

void TempFile::create() {
  if (tmp_fd != -1) return;
  std::string path = temporary_directory() + "/XXXXXX";
  tmp_fd = mkstemp(path.data());
  if (tmp_fd == -1) throw_system_error(17);
  tmp_name = std::move(path);
  // A tight umask would take away what tar, which opens the file by name, needs. The file is ours and
  // empty, so nothing is lost where a file system refuses.
  fchmod(tmp_fd, S_IRUSR | S_IWUSR);
}

bool TempFile::is_open() const {
  // Asking the platform is part of the answer, though its word does not change it. // Quirk Q23
  temporary_directory();
  return tmp_fd != -1;
}

int TempFile::fd() const {
  if (tmp_fd == -1) throw XTOOStatus(36, true);
  return tmp_fd;
}

const std::string& TempFile::name() const { return tmp_name; }

int64 TempFile::size() const {
  struct stat status = {};
  if (fstat(fd(), &status) == -1) throw_system_error(45);
  return status.st_size;
}

void TempFile::rewind() const {
  if (lseek(fd(), 0, SEEK_SET) == -1) throw_system_error(54);
}

void TempFile::remove() {
  if (tmp_fd == -1) return;
  close(tmp_fd);
  if (unlink(tmp_name.c_str()) == -1) {
    const int error = errno;
    if (KovrLogHelper record{1, kRemove, kSource, ""}) {
      record << tmp_name << ": failed to remove temporary file: " << std::strerror(error);
    }
  }
  tmp_name.clear();
  tmp_fd = -1;
}

}  // namespace ConfSave
