#include "snapshots/new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "snapshots/arguments.h"
#include "snapshots/descriptor.h"
#include "snapshots/own_file.h"
#include "snapshots/sentence.h"
#include "snapshots/system_error.h"

namespace ConfSave::snapshots {
namespace {

Error taken(const std::string& file) { return {Code::taken, EEXIST, file, "the file exists"}; }

Error sync(const std::string& path) {
  const Descriptor opened(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return opened && fsync(opened.get()) == 0 ? Error{} : system_error(path);
}

Error rename_over_nothing(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return {};
  if (errno == EEXIST) return taken(to);
  // The file system does not have it.
  if (errno != EINVAL && errno != ENOSYS) return system_error(to);
  struct stat status = {};
  if (lstat(to.c_str(), &status) == 0) return taken(to);
  return std::rename(from.c_str(), to.c_str()) == 0 ? Error{} : system_error(to);
}

}  // namespace

Result<NewFile> NewFile::make(const std::string& prefix) {
  std::string name = prefix + "XXXXXX";
  const Descriptor file = beside_streams(Descriptor(mkostemp(name.data(), O_CLOEXEC)));
  if (!file) return system_error(directory_part(prefix));
  NewFile made(std::move(name));
  // Whatever the umask.
  if (fchmod(file.get(), S_IRUSR | S_IWUSR) != 0) return system_error(made.name());
  return made;
}

NewFile::~NewFile() { remove(); }

void NewFile::remove() {
  if (!name_.empty()) unlink(name_.c_str());
  name_.clear();
}

Error NewFile::publish(const std::string& file, bool overwrite, std::vector<std::string>& warnings) {
  if (Error error = sync(name_); error.code != Code::ok) return error;
  // A directory that cannot be read cannot be synced: this is found out while the old file is there.
  const std::string part = directory_part(file);
  const std::string directory = part.empty() ? "." : part;
  const Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return system_error(directory);
  if (overwrite) {
    if (std::rename(name_.c_str(), file.c_str()) != 0) return system_error(file);
  } else if (Error error = rename_over_nothing(name_, file); error.code != Code::ok) {
    return error;
  }
  name_.clear();
  if (fsync(opened.get()) != 0) {
    warnings.push_back("a power cut may undo the export: " + sentence(system_error(directory)));
  }
  return {};
}

std::string directory_part(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

Error check_destination(const std::string& file, bool overwrite) {
  if (Error error = check_path(file); error.code != Code::ok) return error;
  if (file.empty() || file.back() == '/')
    return {Code::bad_argument, 0, file, "the name of the file is empty"};
  struct stat status = {};
  const bool exists = lstat(file.c_str(), &status) == 0;
  if (!exists && errno != ENOENT) return system_error(file);
  const bool is_link = exists && S_ISLNK(status.st_mode);
  if (!is_link && is_own_file(file)) return {Code::bad_argument, 0, file, "confsave uses this file itself"};
  if (!exists) return {};
  if (!overwrite) return taken(file);
  if (!S_ISREG(status.st_mode)) return {Code::bad_argument, 0, file, "this is not a regular file"};
  return {};
}

}  // namespace ConfSave::snapshots
