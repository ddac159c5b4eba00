#include "directories.h"

#include <places.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string_view>

#include "text.h"

namespace console {
namespace {

constexpr const char* kPathChars =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_./+,=@:";

/// Why a path must not reach a command line, or an empty text.
std::string flaw_of(const std::string& path) {
  if (path.empty() || path.front() != '/') return "is not absolute";
  const std::size_t bad = path.find_first_not_of(kPathChars);
  if (bad != std::string::npos) return "has the character '" + printable(path.substr(bad, 1)) + "'";
  for (std::size_t start = 0; start != std::string::npos; start = path.find('/', start + 1)) {
    const std::string_view part = std::string_view(path).substr(start + 1);
    if (part.substr(0, part.find('/')) == "..") return "goes through '..'";
    if (part.substr(0, 1) == "-") return "has a part that begins with '-'";
  }
  return "";
}

bool check_path(const std::string& what, const std::string& path) {
  const std::string flaw = flaw_of(path);
  if (flaw.empty()) return true;
  std::cerr << "confsave: " << what << " '" << printable(path) << "' " << flaw
            << "; it becomes part of a shell command. Use another directory.\n";
  return false;
}

/// `otherwise` says how to use another directory.
bool check_directory(const std::string& what, const std::string& path, const std::string& otherwise) {
  if (!check_path(what, path)) return false;
  struct stat status = {};
  const int error = stat(path.c_str(), &status) != 0 ? errno : S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
  if (error == 0) return true;
  std::cerr << "confsave: " << what << " '" << path << "' cannot be used: " << std::strerror(error) << ". "
            << (error == ENOENT   ? "Make it"
                : error == EACCES ? "Run confsave as its owner"
                                  : "Remove what is there and make a directory")
            << ", or " << otherwise << ".\n";
  return false;
}

}  // namespace

bool check_target(std::string& target) {
  if (!check_directory("the target", target, "give another --target")) return false;
  if (target.back() != '/') target += '/';
  return true;
}

bool check_directories() {
  return check_directory("the configuration directory", ConfSave::config_directory(),
                         "set KELMOR_CONFIG_PATH to another one") &&
         check_directory("the temporary directory", ConfSave::temporary_directory(),
                         "set KELMOR_TEMP_DIR to another one");
}

}  // namespace console
