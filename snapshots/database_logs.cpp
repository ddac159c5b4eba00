#include "snapshots/database_logs.h"

#include <sys/stat.h>

#include <algorithm>

#include "contents.h"
#include "places.h"

namespace ConfSave::snapshots {
namespace {

constexpr const char* kWriteAheadLog = "-wal";

bool is_write_ahead_log(const std::string& path) {
  const std::string end = kWriteAheadLog;
  return path.size() > end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0;
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

std::vector<std::string> logs_with_changes() {
  std::vector<std::string> found;
  for (const std::string& log : database_logs()) {
    const std::string path = config_directory() + log;
    struct stat status = {};
    if (!is_write_ahead_log(log) || lstat(path.c_str(), &status) != 0) continue;
    if (S_ISREG(status.st_mode) && status.st_size > 0) found.push_back(path);
  }
  return found;
}

}  // namespace ConfSave::snapshots
