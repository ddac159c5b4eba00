#include "snapshots/packing.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <string_view>

#include "places.h"
#include "snapshots/system_error.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

constexpr const char* kPathCharacters =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_./+,=@:";

/// Code::unsafe for a path that a shell would take for something else.
Error check_path(const std::string& path) {
  const auto unsafe = [&path](const std::string& flaw) {
    return Error{Code::unsafe, 0, printable(path), flaw + "; it becomes part of a shell command"};
  };
  if (path.empty() || path.front() != '/') return unsafe("the path is not absolute");
  const std::size_t bad = path.find_first_not_of(kPathCharacters);
  if (bad != std::string::npos) {
    return unsafe("the path has the character '" + printable(path.substr(bad, 1)) + "'");
  }
  for (std::size_t start = 0; start != std::string::npos; start = path.find('/', start + 1)) {
    const std::string_view part = std::string_view(path).substr(start + 1);
    if (part.substr(0, part.find('/')) == "..") return unsafe("the path goes through \"..\"");
    if (part.substr(0, 1) == "-") return unsafe("a part of the path begins with \"-\"");
  }
  return {};
}

Error check_directory(const std::string& path) {
  if (Error error = check_path(path); error.code != Code::ok) return error;
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return system_error(path);
  return S_ISDIR(status.st_mode) ? Error{} : system_error(path, ENOTDIR);
}

Error check_directories(conftype type) {
  Error error = check_directory(config_directory());
  if (error.code == Code::ok && type != conf_corlu) error = check_directory(kFailoverDirectory);
  if (error.code == Code::ok) error = check_directory(temporary_directory());
  return error;
}

/// The contract's exceptions have the system's text and not its number.
int number_of(const std::string& text) {
  constexpr int kNumbers = 200;
  for (int number = 1; number < kNumbers; ++number) {
    if (text == std::strerror(number)) return number;
  }
  return 0;
}

/// Called while the temporary files still take up their space.
bool is_full(const std::string& directory) {
  constexpr std::uint64_t kSmall = 64 << 10;
  struct statvfs status = {};
  return statvfs(directory.c_str(), &status) == 0 && status.f_bavail * status.f_frsize < kSmall;
}

Error explain(const XTOOStatus& failure) {
  const std::string directory = temporary_directory();
  switch (failure.Status()) {
    case status_command:
      if (is_full(directory)) return system_error(directory, ENOSPC);
      return {Code::failed, 0, "", "tar could not pack the configuration"};
    case status_access:
      return {Code::failed, 0, config_directory(), "the configuration database cannot be looked up"};
    default:
      break;
  }
  const int number = number_of(failure.ErrorMessage());
  if (number != 0) return system_error(directory, number);
  return {Code::failed, 0, directory, "an archive could not be read from its temporary file"};
}

}  // namespace

Result<Packed> pack_configuration(conftype type) {
  if (Error error = check_directories(type); error.code != Code::ok) return error;
  Archive archive(type, config_directory());
  try {
    archive.Create();
    Packed packed;
    archive.Fetch(packed.etc, packed.keybase);
    return packed;
  } catch (const XTOOStatus& failure) {
    return explain(failure);
  }
}

}  // namespace ConfSave::snapshots
