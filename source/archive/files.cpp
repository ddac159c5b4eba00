#include "confsave.h"

#include <unistd.h>

#include <cerrno>

#include "archive/pack.h"
#include "kelmor/paths.h"
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

/// File `id` of the configuration database. `dir` is a prefix: it brings its own "/". // Quirk Q34
std::string database_file(const char* dir, int id) {
  return std::string(dir) + "user/" +
         toolsunix::FilenameConvertor::Instance().GetShortFilename(toolsunix::FileId{id});
}

}  // namespace

bool IsFileExist(const char* path) {
  if (access(path, F_OK) == 0) return true;
  const int error = errno;
  if (error == ENOENT) return false;
  log_failure(kIsFileExist, "access() for '", path, error);
  throw_status<XExternalFailure>(19);
}

void RemoveFileIfExists(const char* path) {
  if (unlink(path) == 0) return;
  const int error = errno;
  if (error == ENOENT) return;
  log_failure(kRemoveFileIfExists, "unlink() for '", path, error);
  throw_status<XExternalFailure>(43);
}

bool IsConfigDbExist(const char* dir) {
  return IsFileExist(database_file(dir, 30).c_str()) && IsFileExist(database_file(dir, 31).c_str());
}

void RemoveConfigDb(const char* dir) {
  for (const int id : {29, 30, 31}) RemoveFileIfExists(database_file(dir, id).c_str());
}

}  // namespace ConfSave
