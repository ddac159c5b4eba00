#include "confsave.h"

#include <iostream>

namespace ConfSave {
namespace {

constexpr std::size_t kLongestName = 80;

/// Prints the first fault of the name.
bool is_valid_name(const std::string& name) {
  if (name.empty()) {
    std::cerr << "The configuration name is empty." << std::endl;
    return false;
  }
  if (name.size() > kLongestName) {
    std::cerr << "The configuration name is too long." << std::endl;
    return false;
  }
  const std::size_t bad = name.find_first_not_of(VALID_NAME_CHARS);
  if (bad == std::string::npos) return true;
  std::cerr << "The configuration name contains bad character '" << name[bad] << "'." << std::endl;
  std::cerr << "Valid characters should be in [" << VALID_NAME_CHARS << "]." << std::endl;
  return false;
}

/// Version 0 stands for the running version, and replaces a row of version 0. Packing is part of the
/// transaction. // Quirk Q37, Q39
void create(Storage& storage, const std::string& name, conftype type, int64 version) {
  storage.Begin();
  storage.Delete(name, version);
  if (version == 0) {
    storage.Delete(name, CURRENT_VERSION);
    version = CURRENT_VERSION;
  }
  storage.Create(name, type, version);
  storage.Commit();
}

/// The question comes before Begin(): no lock is held while a person thinks.
bool may_overwrite(const std::string& name, int64 version) {
  std::cout << "Config with name '" << name << "'";
  if (version != 0) std::cout << " (version " << Config::version(version) << ")";
  std::cout << " already exists!\n";
  if (ask_user_yesno("Overwrite it? [Yes/No] ", false)) return true;
  std::cout << "Config is not overwritten.\n";
  return false;
}

void overwrite(Storage& storage, const std::string& name, conftype type, int64 version) {
  storage.Begin();
  if (version != 0) {
    storage.Update(name, type, version);
  } else {
    storage.Delete(name, 0);
    storage.Create(name, type, CURRENT_VERSION);
  }
  storage.Commit();
  std::cout << "Config is overwritten.\n";  // Quirk Q38, Q64
}

bool create_or_overwrite(Storage& storage, const std::string& name, conftype type, int64 version,
                         bool force) {
  if (!storage.Exists(name, version)) {
    if (version != 0 || !storage.Exists(name, CURRENT_VERSION)) {
      create(storage, name, type, version);
      return true;
    }
    version = CURRENT_VERSION;
  }
  if (!force && !may_overwrite(name, version)) return false;
  overwrite(storage, name, type, version);
  return true;
}

}  // namespace

bool save(const std::string& name, conftype type, int64 version, bool force) {
  if (!is_valid_name(name)) return false;
  Storage storage;  // Quirk Q36
  if (!storage.opened) {
    std::cerr << "Open configuration storage error\n";
    return false;
  }
  // After a failure the storage is destroyed without Commit(), and SQLite rolls back.
  try {
    return create_or_overwrite(storage, name, type, version, force);
  } catch (const XNotFound&) {
    std::cerr << "Failed to execute external command.\n";  // Quirk Q35
  } catch (const XExternalFailure&) {
    std::cerr << "'tar' returned non-zero exit status.\n";
  } catch (const XCancel&) {
    std::cerr << "Operation aborted!\n";
  } catch (const XTOOStatus& error) {
    std::cerr << "Unknown error: " + std::to_string(error.Status()) + ".\n";
  } catch (...) {
    std::cerr << "Unknown error (while saving configuration)!\n";
  }
  return false;
}

}  // namespace ConfSave
