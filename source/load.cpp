#include "confsave.h"

#include <iostream>

#include "prompt.h"
#include "throw.h"

namespace ConfSave {
namespace {

Config find_only(Storage& storage, const std::string& pattern, int64 version) {
  const Configs found = storage.FindMatching(pattern, version, true);
  if (found.empty()) throw_status<XNotFound>();
  if (found.size() > 1) throw_status<XAmbiguity>();
  return found.front();
}

void save_current() {
  if (!save(ask_name_for_current(), conf_full, 0, false)) throw_status<XCancel>();
  std::cout << kProduct << " configuration saved.\n";
}

void warn_of_newer_version() {
  std::cout << "Configuration version is newer than current " << kProduct << " version ("
            << Config::version(CURRENT_VERSION) << ")\n"
            << "Files of a configuration, probably, will not be apprehended\n"
            << "by the established version without additional manual editing.\n"
            << "Do you want to continue?";
  if (!ask_user_yesno(YES_NO_SUFFIX, false)) throw_status<XCancel>();
}

/// Throws XCancel unless the person agrees.
void confirm(const Config& config) {
  if (ask_user_yesno("Save current configuration? [Yes/No] ", false)) {
    save_current();
  } else {
    demand_phrase();
  }
  std::cout << "Loading configuration '" << config.name << "'";
  if (config.vers != 0) std::cout << " (version " << config.version() << ")";
  std::cout << std::endl;
  if (config.vers > CURRENT_VERSION) warn_of_newer_version();
}

}  // namespace

void load(const std::string& name, const char* target, int64 version, bool no_confirm) {
  try {
    Storage storage;  // Quirk Q36
    if (!storage.opened) {
      std::cerr << "Open configuration storage error\n";
      return;
    }
    const Config config = find_only(storage, name, version);
    if (!no_confirm) confirm(config);  // Quirk Q40
    storage.Load(config.name, target, config.vers, true);
  } catch (const XNotFound&) {
    std::cerr << "No such config.\n";
  } catch (const XAmbiguity&) {
    std::cerr << "Failed to match the only config.\n";
  } catch (const XChdir& error) {  // Quirk Q41
    std::cerr << "Failed to change directory to " << error.Directory() << "\n";
  } catch (const XExternalFailure&) {
    std::cerr << "External command failed\n";
  } catch (const XCancel&) {
    std::cerr << "Operation aborted!\n";
  } catch (const XTOOStatus& error) {
    std::cerr << "Unknown error: " + std::to_string(error.Status()) + ".\n";
  } catch (...) {
    std::cerr << "Unknown error (while loading configuration)!\n";
  }
}

}  // namespace ConfSave
