#include "support/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "support/process.h"

namespace fs = std::filesystem;

namespace test {

void write_file(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  if (!file) throw std::runtime_error("cannot read " + path);
  return content.str();
}

bool exists(const std::string& path) { return fs::exists(fs::symlink_status(path)); }

std::map<std::string, std::string> tree(const std::string& dir) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    if (entry.is_regular_file()) {
      files[fs::relative(entry.path(), dir).string()] = read_file(entry.path().string());
    }
  }
  return files;
}

void empty_directory(const std::string& dir) {
  for (const auto& entry : fs::directory_iterator(dir)) fs::remove_all(entry.path());
}

Files files_below(const std::string& dir) {
  Files files;
  for (const auto& [name, content] : tree(dir)) {
    struct stat status = {};
    if (stat((dir + name).c_str(), &status) != 0) throw std::runtime_error("stat " + dir + name);
    files[name] = {content, status.st_mode & 07777U, status.st_mtime};
  }
  return files;
}

Texts names_in(const std::string& dir) {
  Texts names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

Texts members(const Bytes& archive) {
  const std::string file = "/tmp/confsave-members-" + std::to_string(getpid());
  write_file(file, std::string(archive.begin(), archive.end()));
  const int code = shell("tar tzf " + file + " > " + file + ".list");
  std::istringstream list(read_file(file + ".list"));
  fs::remove(file);
  fs::remove(file + ".list");
  if (code != 0) throw std::runtime_error("not a gzip tar archive");
  Texts names;
  for (std::string name; std::getline(list, name);) names.push_back(name);
  return names;
}

Bytes make_archive(const std::string& dir, const std::string& names) {
  const std::string file = "/tmp/confsave-archive-" + std::to_string(getpid());
  if (shell("cd " + dir + " && tar czf " + file + " " + names) != 0) throw std::runtime_error("tar");
  const std::string bytes = read_file(file);
  fs::remove(file);
  return {bytes.begin(), bytes.end()};
}

std::multimap<std::string, int> open_below(const std::string& dir) {
  std::multimap<std::string, int> found;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string file = fs::read_symlink(entry.path(), gone).string();
    if (file.compare(0, dir.size(), dir) == 0) {
      found.emplace(file, std::stoi(entry.path().filename().string()));
    }
  }
  return found;
}

std::string hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "x'";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += {kDigits[byte >> 4U], kDigits[byte & 0xfU]};
  }
  return text + "'";
}

}  // namespace test
