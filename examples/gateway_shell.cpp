// Runs a command that changes the configuration, with a way back: keeps the configuration before, and
// brings it back when the command fails.
//
//   gateway-shell COMMAND

#include <confsave.h>

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>

namespace {

const std::string kName = "before-change";

// Without one of these a full snapshot can be stored, and not restored.
bool has_failover_settings() {
  return ConfSave::IsFileExist("/mnt/main/etc/failover.ini") ||
         ConfSave::IsFileExist("/mnt/main/etc/failover.ini.crg") ||
         ConfSave::IsFileExist("/mnt/main/etc/failoverd-config.crg");
}

// save() answers true also when SQLite refused the row: see for yourself that it is there. Times that are
// listed have 32 bits.
bool keep() {
  const std::time_t begun = std::time(nullptr);
  if (!has_failover_settings() || !ConfSave::save(kName, ConfSave::conf_full, 0, true)) return false;
  ConfSave::Storage storage;
  if (!storage.opened) return false;
  const ConfSave::Configs found = storage.FindMatching(kName, ConfSave::CURRENT_VERSION, true);
  return found.size() == 1 && static_cast<std::int32_t>(found[0].save_time - begun) >= 0;
}

// The classes throw; load() would only print.
bool bring_back() try {
  ConfSave::Storage storage;
  if (storage.opened) storage.Load(kName, nullptr, ConfSave::CURRENT_VERSION, true);
  return storage.opened;
} catch (const XTOOStatus& error) {
  std::cerr << "status " << error.Status() << ": " << error.ErrorMessage() << '\n';
  return false;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) return 2;
  if (!keep()) {
    std::cerr << "The configuration could not be kept. Nothing was run.\n";
    return 1;
  }
  if (std::system(argv[1]) == 0) return 0;
  std::cerr << (bring_back() ? "The change failed and was taken back.\n"
                             : "The change failed and STAYS.\n");
  return 1;
} catch (const XTOOStatus& error) {
  std::cerr << "status " << error.Status() << ": " << error.ErrorMessage() << '\n';
  return 1;
}
