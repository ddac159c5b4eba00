#include "archive/pack.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "archive/scratch_directory.h"
#include "kelmor/system.h"
#include "log.h"
#include "throw.h"

namespace ConfSave {
namespace {

const ClUnilogFname kPack{"void ConfSave::pack(const string&, const string&, const string&)", "pack"};
const ClUnilogFname kTempFileToBinObj{
    "void ConfSave::TempFile_to_BinObj(const ConfSave::TempFile&, std::vector<char>&)",
    "TempFile_to_BinObj"};

/// The command is the format: a "%" in a path is not supported.
int run_command(const std::string& command) { return my_system(command.c_str()); }

void log_failure(const ClUnilogFname& function, const char* what, int code, int line = __builtin_LINE()) {
  if (KovrLogHelper record{1, function, kArchiveSource, what, line}) record << code;
}

/// Returns the result of the last command that ran.
int extract_and_move(const std::string& archive, const std::string& scratch, const std::string& dir) {
  int code = run_command(unpack_command(archive, scratch));
  if (code != 0) {
    log_failure(kUnpackTag, "failed to extract files with error code: ", code);
    return code;
  }
  code = run_command(move_command(scratch, dir));
  if (code != 0) log_failure(kUnpackTag, "failed to move files with error code: ", code);
  return code;
}

}  // namespace

const ClUnilogFname kUnpackTag{"void ConfSave::unpack(const string&, const string&)", "unpack"};

// Exact to the blank and the slash. tar ignores missing files. // Quirk Q25, Q31
std::string pack_command(const std::string& archive, const std::string& dir, const std::string& files) {
  return "cd " + dir + " && tar czf " + archive + " --ignore-failed-read " + files + " 2>/dev/null";
}

// The file of the running packet filter is never restored. // Quirk Q30
std::string unpack_command(const std::string& archive, const std::string& scratch) {
  return "tar xzf " + archive + " --exclude corlu.serv -C " + scratch + " 2>/dev/null";
}

// The shell's "*" skips names with a dot in front; when it matches nothing, cp fails. cp gives existing
// directories the mode and owner of those in the scratch directory. Nothing is synced.
// Quirk Q29, Q30, Q61, Q65
std::string move_command(const std::string& scratch, const std::string& dir) {
  return "cp -alf " + scratch + "/* " + dir + "/. 2>/dev/null";
}

std::string remove_command(const std::string& scratch) { return "rm -rf " + scratch + " 2>/dev/null"; }

void pack(const std::string& archive, const std::string& dir, const std::string& files) {
  if (archive.empty() || dir.empty() || files.empty()) throw_status<XExternalFailure>(status_command);
  const int code = run_command(pack_command(archive, dir, files));
  if (code == 0) return;
  log_failure(kPack, "failed to create tar archive with error code: ", code);
  throw_status<XExternalFailure>(status_command);
}

void unpack(const std::string& archive, const std::string& dir) {
  if (archive.empty() || dir.empty()) throw_status<XExternalFailure>(status_command);
  const ScratchDirectory scratch(dir);
  const int code = extract_and_move(archive, scratch.path(), dir);
  const int removed = run_command(remove_command(scratch.path()));
  // The record has the earlier result, not that of rm. // Quirk Q28
  if (removed != 0) log_failure(kUnpackTag, "failed to remove temporary directory with error code: ", code);
  if (code != 0 || removed != 0) throw_status<XExternalFailure>(status_command);
}

void TempFile_to_BinObj(const TempFile& file, std::vector<char>& out) {
  out.clear();
  if (!file.is_open()) return;
  file.rewind();
  const auto size = static_cast<std::size_t>(file.size());
  out.resize(size);
  if (size == 0) return;
  // A short read does not set errno: never report a stale one.
  errno = 0;  // Quirk Q33
  if (read(file.fd(), out.data(), size) == static_cast<ssize_t>(size)) return;
  const int error = errno;
  if (KovrLogHelper record{1, kTempFileToBinObj, kArchiveSource, ""}) {
    record << file.name() << ": failed to read from archive file: " << std::strerror(error);
  }
  throw_text<XTOOStatus>(status_read, std::strerror(error));
}

}  // namespace ConfSave
