#include "snapshots/database_logs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "contents.h"
#include "places.h"
#include "snapshots/archive_path.h"
#include "snapshots/descriptor.h"

namespace ConfSave::snapshots {
namespace {

constexpr const char* kWriteAheadLog = "-wal";

bool is_write_ahead_log(const std::string& path) {
  const std::string end = kWriteAheadLog;
  return path.size() > end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0;
}

/// Whether SQLite would roll this journal back. One that is kept for the next transaction has no header.
bool is_in_use(const std::string& journal) {
  constexpr std::array<unsigned char, 8> kMagic = {0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
  const Descriptor file(open(journal.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  std::array<unsigned char, 8> found = {};
  return file && pread(file.get(), found.data(), found.size(), 0) == static_cast<ssize_t>(found.size()) &&
         found == kMagic;
}

}  // namespace

std::vector<std::string> database_logs() {
  const std::vector<std::string> packed = packed_database_files("");
  std::vector<std::string> logs;
  for (const std::string& file : database_files("")) {
    if (!is_database_file(file)) logs.push_back(file);
  }
  for (const std::string& file : packed) {
    for (const char* end : {"-journal", kWriteAheadLog, "-shm"}) logs.push_back(file + end);
  }
  std::sort(logs.begin(), logs.end());
  logs.erase(std::unique(logs.begin(), logs.end()), logs.end());
  return logs;
}

bool is_database_file(const std::string& path) {
  const std::vector<std::string> packed = packed_database_files("");
  return std::find(packed.begin(), packed.end(), path) != packed.end();
}

std::string log_slot(const std::string& slot, const std::string& log) {
  return slot + "." + log.substr(log.rfind('/') + 1);
}

bool holds_changes(const Member& log) {
  return is_write_ahead_log(log.path) && log.kind == Kind::file && log.size > 0;
}

std::vector<std::string> warnings_of_logs() {
  std::vector<std::string> warnings;
  for (const std::string& log : database_logs()) {
    const std::string path = config_directory() + log;
    struct stat status = {};
    const bool is_file = lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (!is_file || status.st_size == 0) continue;
    if (is_write_ahead_log(log)) {
      warnings.push_back(printable(path) +
                         ": the database has changes in this file that the snapshot does not hold");
    } else if (is_in_use(path)) {
      warnings.push_back(printable(path) +
                         ": a transaction has not ended; the snapshot may hold a part of it");
    }
  }
  return warnings;
}

}  // namespace ConfSave::snapshots
