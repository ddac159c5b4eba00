#include "snapshots.h"

#include <places.h>
#include <sys/stat.h>
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

#include "advice.h"
#include "command_runner.h"
#include "exit_status.h"
#include "interrupt.h"
#include "storage_schema.h"
#include "storage_wait.h"
#include "text.h"

namespace console {
namespace {

void print_why_not_opened() {
  const std::string directory = ConfSave::state_directory();
  std::cerr << "confsave: the storage '" << printable(ConfSave::storage_file()) << "' cannot be opened: ";
  struct stat status = {};
  if (stat(directory.c_str(), &status) != 0) {
    std::cerr << std::strerror(errno)
              << ". Make the directory, or set KELMOR_DYNAMIC_DIR to another one.\n";
  } else if (access(directory.c_str(), R_OK | W_OK | X_OK) != 0) {
    std::cerr << std::strerror(errno) << ". Run confsave as the directory's owner.\n";
  } else if (access(ConfSave::storage_file().c_str(), R_OK | W_OK) != 0) {
    std::cerr << std::strerror(errno) << ". Run confsave as the file's owner.\n";
  } else {
    std::cerr << "it is no regular file, or cannot be read. The log '" << printable(log_file())
              << "' says more.\n";
  }
}

/// True unless a query of the table fails, in which case any name "exists". No row has this one.
bool is_readable(ConfSave::Storage& storage) {
  return !storage.Exists("?", std::numeric_limits<ConfSave::int64>::min());
}

/// A directory of its own in the temporary directory, for one rehearsal.
class RehearsalDirectory {
 public:
  RehearsalDirectory() : path_(ConfSave::temporary_directory() + "/XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), ConfSave::temporary_directory());
    }
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

/// Never commits: closing the storage undoes the stamp.
void rehearse(const ConfSave::Config& config) {
  forget_failed_command();
  const RehearsalDirectory directory;
  ConfSave::Storage storage;
  storage.Begin();
  storage.Load(config.name, directory.target().c_str(), config.vers, true);
}

std::string quoted(const std::string& text) { return "'" + printable(text) + "'"; }

/// Why a command of a rehearsal failed. A full directory must not pass for a damaged archive.
std::string reason_of_failed_command() {
  const auto& failed = failed_command();
  if (!failed) return "a command failed";
  if (!failed->obstacle.empty()) return failed->obstacle + ". Mend that and try again";
  if (failed->program == "tar") return "an archive in its row is damaged (" + failed->ending + ")";
  return failed->ending;
}

}  // namespace

int check_storage() {
  if (has_foreign_config()) {
    std::cerr << "confsave: " << quoted(ConfSave::storage_file())
              << " is not a storage of ConfSave: 'Config' in it is not a table. Move the file away.\n";
    return kNoStorage;
  }
  ConfSave::Storage storage;
  if (!storage.opened) {
    print_why_not_opened();
    return kNoStorage;
  }
  if (is_readable(storage)) return kDone;
  if (interrupted()) {
    std::cerr << "confsave: interrupted; nothing was done.\n";
    return kFailed;
  }
  if (storage_wait_expired()) {
    print_storage_wait_expired();
    return kBusy;
  }
  std::cerr << "confsave: " << quoted(ConfSave::storage_file())
            << " is damaged, not a storage of ConfSave, or its disk fails. Nothing was changed. The log "
            << quoted(log_file()) << " says more.\n";
  return kNoStorage;
}

std::optional<ConfSave::Config> find_exactly(const std::string& name, ConfSave::int64 version) {
  ConfSave::Storage storage;
  if (!storage.opened) return std::nullopt;
  for (const ConfSave::Config& config : storage.FindMatching(name, 0, false)) {
    if (config.vers == version) return config;
  }
  return std::nullopt;
}

bool has_plain_name(const ConfSave::Config& config) {
  ConfSave::Storage storage;
  if (storage.Exists(config.name, config.vers)) return true;
  std::cerr << "confsave: the stored name that begins with '" << printable(config.name)
            << "' goes on after a NUL byte. Rename or delete its row with sqlite3 in "
            << quoted(ConfSave::storage_file()) << ".\n";
  return false;
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

bool can_be_restored(const ConfSave::Config& config) {
  std::string why;
  try {
    rehearse(config);
    return true;
  } catch (const ConfSave::XNotFound&) {
    why = "its row in " + quoted(ConfSave::storage_file()) +
          " cannot be read. Check the file with sqlite3: pragma "
          "integrity_check";
  } catch (const ConfSave::XExternalFailure&) {
    why = reason_of_failed_command();
  } catch (const ConfSave::XConstraint& error) {
    why = reason(error);
  } catch (const XTOOStatus& error) {
    why = quoted(ConfSave::temporary_directory()) + ": " + reason(error) +
          ". Free some space there, or lift the limit on the size of files (ulimit -f)";
  } catch (const std::system_error& error) {
    why = printable(error.what());
  }
  if (interrupted()) {
    std::cerr << "confsave: interrupted; nothing was restored.\n";
  } else {
    std::cerr << "confsave: '" << config.name << "' cannot be restored: " << why << ".\n";
  }
  return false;
}

}  // namespace console
