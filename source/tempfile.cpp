#include "confsave.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kelmor/paths.h"
#include "log.h"
#include "throw.h"

namespace ConfSave {
namespace {

constexpr const char* kSource = "source/tempfile";
const ClUnilogFname kRemove{"void ConfSave::TempFile::remove()", "remove"};

std::string temporary_directory() {
  return toolsunix::FilenameConvertor::Instance().GetFullDirName(toolsunix::path::DirectoryId{1});
}

[[noreturn]] void throw_system_error(int status) { throw_text<XTOOStatus>(status, std::strerror(errno)); }

/// In a destructor as well, where what the beginning of a record throws would end the process.
void log_failed_removal(const std::string& name, int error) noexcept {
  try {
    if (KovrLogHelper record{1, kRemove, kSource, ""}) {
      record << name << ": failed to remove temporary file: " << std::strerror(error);
    }
  } catch (...) {
    // Nobody is left to tell.
  }
}

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
  if (tmp_fd == -1) throw_status<XTOOStatus>(36);
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

// Whatever happens, the file is forgotten. // Quirk Q24
void TempFile::remove() {
  if (tmp_fd == -1) return;
  close(tmp_fd);
  if (unlink(tmp_name.c_str()) == -1) log_failed_removal(tmp_name, errno);
  tmp_name.clear();
  tmp_fd = -1;
}

}  // namespace ConfSave
