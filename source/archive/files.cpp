#include "confsave.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "archive/pack.h"
#include "contents.h"
#include "log.h"
#include "throw.h"

namespace ConfSave {
namespace {

const ClUnilogFname kIsFileExist{"bool ConfSave::IsFileExist(const char*)", "IsFileExist"};
const ClUnilogFname kRemoveFileIfExists{"void ConfSave::RemoveFileIfExists(const char*)",
                                        "RemoveFileIfExists"};

void log_failure(const ClUnilogFname& function, const char* call, const char* path, int error,
                 int line = __builtin_LINE()) {
  if (KovrLogHelper record{1, function, kArchiveSource, call, line}) {
    record << path << "' failed (code " << error << ")";
  }
}

}  // namespace

bool IsFileExist(const char* path) {
  if (access(path, F_OK) == 0) return true;
  const int error = errno;
  if (error == ENOENT) return false;
  log_failure(kIsFileExist, "access() for '", path, error);
  throw_status<XExternalFailure>(status_access);
}

void RemoveFileIfExists(const char* path) {
  if (unlink(path) == 0) return;
  const int error = errno;
  if (error == ENOENT) return;
  log_failure(kRemoveFileIfExists, "unlink() for '", path, error);
  throw_status<XExternalFailure>(status_unlink);
}

bool IsConfigDbExist(const char* dir) {
  const std::vector<std::string> files = packed_database_files(dir);
  return std::all_of(files.begin(), files.end(),
                     [](const std::string& file) { return IsFileExist(file.c_str()); });
}

// Follows a link in the place of "user/". // Quirk Q66
void RemoveConfigDb(const char* dir) {
  for (const std::string& file : database_files(dir)) RemoveFileIfExists(file.c_str());
}

}  // namespace ConfSave
