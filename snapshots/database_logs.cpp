#include "snapshots/database_logs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "contents.h"
#include "places.h"
#include "snapshots/descriptor.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

constexpr const char* kWriteAheadLog = "-wal";
constexpr const char* kIndex = "-shm";
constexpr const char* kIsTorn = ": a transaction has not ended; the snapshot may hold a part of it";

bool ends_with(const std::string& path, const std::string& end) {
  return path.size() > end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0;
}

bool is_write_ahead_log(const std::string& path) { return ends_with(path, kWriteAheadLog); }

/// Whether SQLite would roll this journal back. One that is kept for the next transaction has no header.
bool is_in_use(int directory, const std::string& journal) {
  constexpr std::array<unsigned char, 8> kMagic = {0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
  const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const Descriptor file(openat(directory, journal.c_str(), flags));
  std::array<unsigned char, 8> found = {};
  const auto size = static_cast<ssize_t>(found.size());
  return !file || (pread(file.get(), found.data(), found.size(), 0) == size && found == kMagic);
}

}  // namespace

std::vector<std::string> logs_of(const std::string& path) {
  const std::vector<std::string> packed = packed_database_files("");
  if (std::find(packed.begin(), packed.end(), path) == packed.end()) return {};
  return {path + "-journal", path + kWriteAheadLog, path + kIndex};
}

std::vector<std::string> database_logs() {
  std::vector<std::string> all;
  for (const std::string& file : packed_database_files("")) {
    for (std::string& log : logs_of(file)) all.push_back(std::move(log));
  }
  return all;
}

std::set<std::string> locked_paths() {
  std::set<std::string> paths;
  for (const std::string& file : database_files("")) {
    for (const char* end : {"", "-journal", kWriteAheadLog, kIndex}) paths.insert(file + end);
  }
  return paths;
}

std::string log_slot(const std::string& slot, const std::string& log) {
  return slot + "." + log.substr(log.rfind('/') + 1);
}

bool is_spent(int directory, const std::string& name, const std::string& log) {
  const std::vector<std::string> logs = database_logs();
  struct stat status = {};
  const bool is_there = std::find(logs.begin(), logs.end(), log) != logs.end() &&
                        fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
  if (!is_there || !S_ISREG(status.st_mode)) return false;
  // The index is not opened: closing it would release the locks that SQLite has on it in this process.
  if (status.st_size == 0 || ends_with(log, kIndex)) return true;
  return !is_write_ahead_log(log) && !is_in_use(directory, name);
}

const char* loss_with(const std::string& log) {
  return is_write_ahead_log(log)
             ? "the database may have changes in this file that no snapshot holds; end its programs and "
               "open it once with sqlite3, which writes them into it, or move this file away"
             : "a transaction has not ended, and no snapshot holds what this file puts back; end the "
               "programs of the database and open it once with sqlite3, which rolls the transaction back";
}

std::vector<std::string> warnings_of_logs() {
  std::vector<std::string> warnings;
  for (const std::string& log : database_logs()) {
    const std::string path = config_directory() + log;
    struct stat status = {};
    const bool is_file = lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (!is_file || is_spent(AT_FDCWD, path, log)) continue;
    warnings.push_back(printable(path) +
                       (is_write_ahead_log(log)
                            ? ": the database may have changes in this file that the snapshot does not hold"
                            : kIsTorn));
  }
  return warnings;
}

bool is_torn(const Saved& saved) {
  return std::any_of(saved.warnings.begin(), saved.warnings.end(),
                     [](const std::string& warning) { return ends_with(warning, kIsTorn); });
}

}  // namespace ConfSave::snapshots
