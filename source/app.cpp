#include "confsave.h"

#include <iostream>

#include "prompt.h"
#include "throw.h"

namespace ConfSave {
namespace {

// These functions use version 0 only and do not look at `opened`, and each of their questions accepts
// another answer as yes. // Quirk Q43, Q45, Q46

/// Returns false, with a message, when packing fails; and when the name is taken and the person declines to
/// overwrite it. Exceptions of the second attempt propagate.
bool store(Storage& storage, const std::string& name, conftype type) {
  try {
    storage.Create(name, type, 0);
    return true;
  } catch (const XConstraint&) {
    std::cout << "Config '" << name << "' exists. Overwrite? ";
    const std::string answer = read_line();
    if (answer != "y" && answer != "Y") return false;
    // Without a transaction, the old row is deleted before the new one is packed. // Quirk Q44
    storage.Delete(name, 0);
    storage.Create(name, type, 0);
    return true;
  } catch (const XNotFound&) {
    std::cout << "Failed to execute external command.\n";  // Quirk Q35
  } catch (const XExternalFailure&) {
    std::cout << "'tar' returned non-zero exit status.\n";
  }
  return false;
}

/// Throws XCancel unless the current configuration is saved, or the person agrees to lose it.
void protect_current(Storage& storage) {
  std::cout << "Save current configuration [Y/n]? ";
  const std::string answer = read_line();
  if (answer == "n" || answer == "N") {
    demand_phrase();
    return;
  }
  if (!store(storage, ask_name_for_current(), conf_full)) throw_status<XCancel>();
  std::cout << kProduct << " configuration saved.\n";
}

}  // namespace

void App::lst() {
  try {
    Storage storage;
    for (const Config& config : storage.List(0, "", true)) std::cout << config << '\n';
  } catch (...) {
    std::cerr << "Failed to open storage.\n";
  }
}

bool App::save(const std::string& name, conftype type) {
  try {
    Storage storage;
    return store(storage, name, type);
  } catch (...) {
    std::cerr << "Failed to save configuration '" << name << "'.\n";
  }
  return false;
}

void App::del(const std::string& name) {
  Storage storage;
  try {
    storage.Delete(name, 0);
  } catch (const XNotFound&) {  // Quirk Q47
    std::cout << "No such config.\n";
  }
}

void App::load(const std::string& name) {
  Storage storage;
  try {
    protect_current(storage);
    std::cout << "Loading configuration '" << name << "'.\n";
    storage.Load(name, nullptr, 0, true);
  } catch (const XChdir& error) {
    std::cout << "Failed to change directory to " << error.Directory() << "\n";
  } catch (const XExternalFailure&) {
    std::cout << "External command failed\n";
  } catch (const XCancel&) {
    std::cout << "Aborted.\n";
  } catch (const XTOOStatus& error) {  // Also a name that is not stored. // Quirk Q56
    std::cout << "Unknown error: " + std::to_string(error.Status()) + ".\n";
  } catch (...) {
    std::cout << "Unknown error while restoring configuration.\n";
  }
}

}  // namespace ConfSave
