#include "advice.h"

#include <contents.h>
#include <places.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "command_runner.h"
#include "interrupt.h"
#include "storage_wait.h"
#include "text.h"

namespace console {
namespace {

bool is_full(const std::string& directory) {
  struct statvfs space = {};
  return statvfs(directory.c_str(), &space) == 0 && space.f_bavail * space.f_frsize < 65536;
}

}  // namespace

std::string log_file() {
  const char* file = secure_getenv("KELMOR_LOG_FILE");
  return file != nullptr && *file != '\0' ? file : "/var/log/kelmor.log";
}

std::string obstacle(const std::string& directory) {
  const int error = access(directory.c_str(), W_OK | X_OK) != 0 ? errno : is_full(directory) ? ENOSPC : 0;
  return error != 0 ? "'" + printable(directory) + "': " + std::strerror(error) : "";
}

void print_next_step() {
  if (storage_wait_expired()) return print_storage_wait_expired();
  if (storage_is_damaged()) return print_storage_damaged();
  const auto& failed = failed_command();
  if (failed) std::cerr << "confsave: " << failed->action << " failed: " << failed->ending << ".\n";
  if (failed && !failed->obstacle.empty()) {
    std::cerr << "confsave: " << failed->obstacle << ". Mend that and try again.\n";
    return;
  }
  for (const std::string& directory : {ConfSave::temporary_directory(), ConfSave::state_directory()}) {
    if (!is_full(directory)) continue;
    std::cerr << "confsave: no space is left in '" << printable(directory)
              << "'. Free some and try again.\n";
    return;
  }
  std::cerr << "confsave: the log '" << printable(log_file())
            << "' can say more. With KELMOR_LOG_LEVEL=4 it has every step.\n";
}

void print_not_found(const std::string& name) {
  if (storage_wait_expired() || storage_is_damaged()) return;
  std::cerr << "confsave: nothing is stored as '" << name << "'. 'confsave list' lists what is.\n";
}

void print_partial_restore() {
  if (!interrupted()) print_next_step();
  std::cerr << "confsave: " << (interrupted() ? "interrupted; " : "")
            << "the configuration may be restored in part. Load again, or load another snapshot.\n";
}

void print_missing_stamp(const std::string& name) {
  std::cerr << "confsave: '" << name << "' was restored, but its load time could not be stored.\n";
  print_next_step();
}

void warn_without_failover_files(ConfSave::conftype type) {
  if (type == ConfSave::conf_corlu) return;
  for (const ConfSave::ContentsEntry& entry : ConfSave::contents()) {
    const bool is_failover = entry.base == ConfSave::Base::failover;
    if (is_failover && access((ConfSave::kFailoverDirectory + entry.path).c_str(), F_OK) == 0) return;
  }
  std::cerr << "confsave: warning: '" << ConfSave::kFailoverDirectory
            << "' has no failover file. A snapshot without one is stored, but cannot be restored.\n";
}

}  // namespace console
