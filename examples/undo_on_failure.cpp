// Runs a command that changes the configuration. If the command fails, restores the configuration from
// before.
//
//   undo-on-failure COMMAND

#include <confsave.h>
#include <fcntl.h>
#include <kelmor/paths.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>

namespace {

const std::string kName = "before-change";
const std::string kFailoverDirectory = "/mnt/main/etc/";

// Without one of these files a full snapshot can be stored but not restored.
bool has_failover_files() {
  const auto exists = [](const char* name) {
    return ConfSave::IsFileExist((kFailoverDirectory + name).c_str());
  };
  return exists("failover.ini") || exists("failover.ini.crg") || exists("failoverd-config.crg");
}

// save() returns true even if SQLite refused the row, so look the row up. Listed times have 32 bits.
bool keep() {
  const std::time_t begun = std::time(nullptr);
  if (!has_failover_files() || !ConfSave::save(kName, ConfSave::conf_full, 0, true)) return false;
  ConfSave::Storage storage;
  if (!storage.opened) return false;
  const ConfSave::Configs found = storage.FindMatching(kName, ConfSave::CURRENT_VERSION, true);
  return found.size() == 1 && static_cast<std::int32_t>(found[0].save_time - begun) >= 0;
}

bool sync_file_system_of(const std::string& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd == -1) return false;
  const bool synced = syncfs(fd) == 0;
  close(fd);
  return synced;
}

// The library does not sync the files that it restores: after a power cut they could be empty.
bool sync_restored_files() {
  const auto& paths = toolsunix::FilenameConvertor::Instance();
  return sync_file_system_of(paths.GetKelmorConfigPath()) && sync_file_system_of(kFailoverDirectory);
}

// Storage::Load() throws; ConfSave::load() would only print.
bool restore() try {
  ConfSave::Storage storage;
  if (!storage.opened) return false;
  storage.Load(kName, nullptr, ConfSave::CURRENT_VERSION, true);
  return sync_restored_files();
} catch (const XTOOStatus& error) {
  std::cerr << "status " << error.Status() << ": " << error.ErrorMessage() << '\n';
  return false;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) return 2;
  if (!keep()) {
    std::cerr << "The configuration could not be saved. The command was not run.\n";
    return 1;
  }
  if (std::system(argv[1]) == 0) return 0;
  std::cerr << (restore() ? "The command failed. The configuration is restored.\n"
                          : "The command failed. The configuration is NOT restored.\n");
  return 1;
} catch (const XTOOStatus& error) {
  std::cerr << "status " << error.Status() << ": " << error.ErrorMessage() << '\n';
  return 1;
}
