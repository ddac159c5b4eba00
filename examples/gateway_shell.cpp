// Runs a command that changes the configuration, with a way back: keeps the configuration before, and
// brings it back when the command fails.
//
//   gateway-shell COMMAND

#include <confsave.h>
#include <kelmor/log.h>

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>

namespace {

void write(const char* text) { std::clog << text; }

void write_integer(const void* value, unsigned width) {
  std::clog << (width == 8 ? *static_cast<const ConfSave::int64*>(value) : *static_cast<const int*>(value));
}

}  // namespace

// A host's own log comes before the platform's. What is left null is left out.
const KorvLogProps* KorvLog_GetProps_cl_module(int) {
  static const KorvLogProps log = {1, nullptr, write, write, write_integer, [] { std::clog << '\n'; }};
  return &log;
}

namespace {

const std::string kName = "before-change";

// save() answers true also when SQLite refused the row: see for yourself that it is there.
bool keep() {
  const std::time_t begun = std::time(nullptr);
  if (!ConfSave::save(kName, ConfSave::conf_full, 0, true)) return false;
  ConfSave::Storage storage;
  if (!storage.opened) return false;
  const ConfSave::Configs found = storage.FindMatching(kName, ConfSave::CURRENT_VERSION, true);
  return found.size() == 1 && found[0].save_time >= begun;
}

// The classes throw; load() would only print.
bool bring_back() try {
  ConfSave::Storage storage;
  if (storage.opened) storage.Load(kName, nullptr, ConfSave::CURRENT_VERSION, true);
  return storage.opened;
} catch (const XTOOStatus& error) {
  std::cerr << "status " << error.Status() << " " << error.ErrorMessage() << '\n';
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  if (!keep()) {
    std::cerr << "The configuration could not be kept. Nothing was run.\n";
    return 1;
  }
  if (std::system(argv[1]) == 0) return 0;
  std::cerr << (bring_back() ? "The change failed and was taken back.\n"
                             : "The change failed and STAYS.\n");
  return 1;
}
