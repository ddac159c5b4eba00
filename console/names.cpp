#include "names.h"

#include <confsave.h>
#include <kelmor/paths.h>
#include <sys/stat.h>

#include <iostream>
#include <string_view>

namespace console {
namespace {

constexpr std::size_t kLongestName = 80;
constexpr const char* kPathChars =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_./+,=@:";

bool check_characters(const char* what, const std::string& text, const std::string& valid) {
  if (text.empty()) {
    std::cerr << "confsave: the " << what << " is empty; give 1 to 80 characters.\n";
    return false;
  }
  if (text.size() > kLongestName) {
    std::cerr << "confsave: the " << what << " has " << text.size() << " characters; 80 are the most.\n";
    return false;
  }
  const std::size_t bad = text.find_first_not_of(valid);
  if (bad == std::string::npos) return true;
  std::cerr << "confsave: the " << what << " has the character '" << printable(text.substr(bad, 1))
            << "'; use letters, digits, '-' and '_'"
            << (valid.size() > ConfSave::VALID_NAME_CHARS.size() ? ", and * ? [ ] to match any.\n" : ".\n");
  return false;
}

/// Why a path cannot stand in a command line, or an empty text.
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
            << "; it would get into a command line.\n";
  return false;
}

bool is_directory(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool check_directory(const std::string& what, const std::string& path, const char* variable) {
  if (!check_path(what, path)) return false;
  if (is_directory(path)) return true;
  std::cerr << "confsave: " << what << " '" << path << "' is not there; make it, or name another in "
            << variable << ".\n";
  return false;
}

}  // namespace

std::string printable(const std::string& text) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string result;
  for (const char letter : text) {
    const auto byte = static_cast<unsigned char>(letter);
    if (byte >= 0x20 && byte < 0x7f) {
      result += letter;
    } else {
      result.append("\\x").append(1, kDigits[byte >> 4U]).append(1, kDigits[byte & 0xfU]);
    }
  }
  return result;
}

bool is_name(const std::string& text) {
  return !text.empty() && text.size() <= kLongestName &&
         text.find_first_not_of(ConfSave::VALID_NAME_CHARS) == std::string::npos;
}

bool check_name(const std::string& name) {
  return check_characters("name", name, ConfSave::VALID_NAME_CHARS);
}

bool check_pattern(const std::string& pattern) {
  return check_characters("name or pattern", pattern, ConfSave::VALID_NAME_CHARS + "*?[]");
}

bool check_target(std::string& target) {
  if (!check_path("the target", target)) return false;
  if (!is_directory(target)) {
    std::cerr << "confsave: the target '" << target << "' is no directory; make it first.\n";
    return false;
  }
  if (target.back() != '/') target += '/';
  return true;
}

bool check_directories() {
  const auto& paths = toolsunix::FilenameConvertor::Instance();
  return check_directory("the configuration directory", paths.GetKelmorConfigPath(),
                         "KELMOR_CONFIG_PATH") &&
         check_directory("the directory for temporary files",
                         paths.GetFullDirName(toolsunix::path::DirectoryId{1}), "KELMOR_TEMP_DIR");
}

}  // namespace console
