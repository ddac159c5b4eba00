#include "gateway.h"

#include <kelmor/paths.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <limits>
#include <system_error>
#include <thread>

#include "names.h"

namespace console {
namespace {

std::string state_directory() {
  return toolsunix::FilenameConvertor::Instance().GetFullDynamicDirName(
      toolsunix::path::DynamicDirectoryId{1});
}

std::string scratch_directory() {
  return toolsunix::FilenameConvertor::Instance().GetFullDirName(toolsunix::path::DirectoryId{1});
}

/// SQLite tells the library's log what it thinks; a person wants to know what to do about it.
void tell_why_not_opened() {
  const std::string directory = state_directory();
  std::cerr << "confsave: the storage '" << printable(directory) << "/storage.db' cannot be opened: ";
  struct stat status = {};
  if (stat(directory.c_str(), &status) != 0) {
    std::cerr << std::strerror(errno) << ". Make the directory, or name another in KELMOR_DYNAMIC_DIR.\n";
  } else if (access(directory.c_str(), R_OK | W_OK | X_OK) != 0) {
    std::cerr << std::strerror(errno) << ". Run this as the directory's owner.\n";
  } else {
    std::cerr << "is it a file of yours? The log says more.\n";
  }
}

/// True unless a query of the table fails, in which case any name "exists". No row has this one.
bool is_readable(ConfSave::Storage& storage) {
  return !storage.Exists("?", std::numeric_limits<ConfSave::int64>::min());
}

bool is_full(const std::string& directory) {
  struct statvfs space = {};
  return statvfs(directory.c_str(), &space) == 0 && space.f_bavail * space.f_frsize < 65536;
}

/// A directory for a rehearsal, gone afterwards.
class RehearsalDirectory {
 public:
  RehearsalDirectory() : path_(scratch_directory() + "/XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) throw std::system_error(errno, std::generic_category(), path_);
  }
  RehearsalDirectory(const RehearsalDirectory&) = delete;
  RehearsalDirectory& operator=(const RehearsalDirectory&) = delete;
  ~RehearsalDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  std::string target() const { return path_ + "/"; }

 private:
  std::string path_;
};

}  // namespace

bool check_storage() {
  ConfSave::Storage storage;
  if (!storage.opened) {
    tell_why_not_opened();
    return false;
  }
  if (is_readable(storage)) return true;
  std::cerr << "confsave: '" << printable(state_directory())
            << "/storage.db' is damaged or is no storage of ConfSave. It was left as it is; the log says "
            << "more.\n";
  return false;
}

std::optional<ConfSave::Config> find_exactly(const std::string& name, ConfSave::int64 version) {
  ConfSave::Storage storage;
  if (!storage.opened) return std::nullopt;
  for (const ConfSave::Config& config : storage.FindMatching(name, 0, false)) {
    if (config.vers == version) return config;
  }
  return std::nullopt;
}

bool is_since(ConfSave::int64 stored_time, std::time_t since) {
  const auto elapsed = static_cast<std::uint32_t>(stored_time) - static_cast<std::uint32_t>(since);
  return elapsed < 0x80000000U;
}

bool was_saved(const std::string& name, ConfSave::int64 version, std::time_t since) {
  const auto config = find_exactly(name, version);
  return config && is_since(config->save_time, since);
}

bool was_loaded(const std::string& name, ConfSave::int64 version, std::time_t since) {
  const auto config = find_exactly(name, version);
  return config && config->load_time != 0 && is_since(config->load_time, since);
}

std::time_t later_than(ConfSave::int64 stored_time) {
  std::time_t now = std::time(nullptr);
  while (static_cast<std::uint32_t>(now) == static_cast<std::uint32_t>(stored_time)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    now = std::time(nullptr);
  }
  return now;
}

void warn_without_failover_files(ConfSave::conftype type) {
  if (type == ConfSave::conf_corlu) return;
  for (const char* name : {"failover.ini", "failover.ini.crg", "failoverd-config.crg"}) {
    if (access((std::string("/mnt/main/etc/") + name).c_str(), F_OK) == 0) return;
  }
  std::cerr
      << "confsave: warning: /mnt/main/etc/ holds no failover file. A snapshot without one is stored, "
         "but cannot be restored.\n";
}

bool can_be_restored(const ConfSave::Config& config) {
  try {
    const RehearsalDirectory directory;
    ConfSave::Storage storage;
    // Never committed: closing the storage takes the stamp back.
    storage.Begin();
    storage.Load(config.name, directory.target().c_str(), config.vers, true);
    return true;
  } catch (const ConfSave::XExternalFailure&) {
    std::cerr << "confsave: '" << config.name << "' cannot be restored: an archive of it is damaged or "
              << "holds nothing, as when it was saved without failover files.\n";
  } catch (const XTOOStatus& error) {
    const std::string text = error.ErrorMessage();
    std::cerr << "confsave: '" << config.name << "' cannot be restored: "
              << printable(text.empty() ? "status " + std::to_string(error.Status()) : text) << ".\n";
  } catch (const std::system_error& error) {
    std::cerr << "confsave: '" << config.name << "' cannot be tried out: " << error.what() << ".\n";
  }
  return false;
}

void tell_what_to_look_at() {
  for (const std::string& directory : {scratch_directory(), state_directory()}) {
    if (!is_full(directory)) continue;
    std::cerr << "confsave: no space is left in '" << printable(directory)
              << "'; make some and try again.\n";
    return;
  }
  std::cerr
      << "confsave: the log says more; KELMOR_LOG_FILE names it, and KELMOR_LOG_LEVEL=4 has it all.\n";
}

}  // namespace console
