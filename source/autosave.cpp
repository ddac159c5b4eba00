#include "autosave.h"

#include <algorithm>

#include "kelmor/log.h"
#include "log.h"

namespace ConfSave {
namespace {

constexpr const char* kSource = "source/freefunc";
const ClUnilogFname kSaveIfUnique{
    "bool ConfSave::save_if_unique(ConfSave::Storage&, const string&, ConfSave::conftype)",
    "save_if_unique"};
const ClUnilogFname kCleanAutosaves{"void ConfSave::CleanAutosaves(ConfSave::Storage&, unsigned int)",
                                    "CleanAutosaves"};
const ClUnilogFname kCheckOld{"bool ConfSave::CheckOld()", "CheckOld"};

constexpr int kInformation = 6;
constexpr int64 kOldAfter = int64{31} * 86400;

/// A failure is logged and the loop goes on. A refused delete does not show. // Quirk Q57
void delete_autosave(Storage& storage, const Config& config) {
  try {
    storage.Delete(config.name, config.vers);
    slput(kInformation, "Deleted old confsave '%s' (version %s)", config.name.c_str(),
          config.version().c_str());
  } catch (...) {
    if (KovrLogHelper record{1, kCleanAutosaves, kSource, "Failed to delete old confsave '"}) {
      record << config.name << "' (version " << config.version() << ")";
    }
  }
}

/// The exception may have come from the host's log, which may throw again.
void log_unknown_exception() noexcept {
  try {
    log_text(1, kCheckOld, kSource, "unknown exception raised!");
  } catch (...) {
    // There is no other place to report it.
  }
}

}  // namespace

std::string autosave_name(std::time_t now) {
  char name[44] = {};
  const std::tm* local = std::localtime(&now);
  // Without a calendar date the name still counts as an autosave.
  if (local == nullptr) return "autosave-" + std::to_string(now);
  return {name, std::strftime(name, sizeof name, "autosave-%Y-%m-%d-%H-%M-%S", local)};
}

bool is_old_autosave(const Config& config, int64 now) {
  return config.save_time < now - kOldAfter && config.name.compare(0, 8, "autosave") == 0;
}

bool save_if_unique(Storage& storage, const std::string& name, conftype type) {
  if (storage.Exists(name, CURRENT_VERSION)) return false;
  // The row was just found absent; the delete is redundant. // Quirk Q52
  storage.Delete(name, CURRENT_VERSION);
  storage.Create(name, type, CURRENT_VERSION);
  if (KovrLogHelper record{4, kSaveIfUnique, kSource, "config '"}) {
    record << name << "' (version " << Config::version(CURRENT_VERSION) << ") successfully saved";
  }
  return true;
}

void CleanAutosaves(Storage& storage, unsigned maxautosaves) {
  const Configs found = storage.FindMatching("autosave*", 0, true);
  const std::uint64_t count = found.size();
  if (KovrLogHelper record{4, kCleanAutosaves, kSource, "maxautosaves = "}) {
    record << maxautosaves << ", find autosaves = " << count;
  }
  if (maxautosaves > count) return;
  // Names made of the time sort by time. One more must fit in; for a limit of 0 that exceeds the number of
  // rows. // Quirk Q50, Q53, Q60
  const std::uint64_t surplus = std::min(count + 1 - maxautosaves, count);
  for (std::uint64_t i = 0; i < surplus; ++i) delete_autosave(storage, found[i]);
}

// The name comes from the clock; the parameter stays for callers that pass one. Surplus autosaves are
// deleted first, and at most `maxautosaves` names are tried. // Quirk Q48, Q49, Q51
void AutoSave(const std::string&, conftype type, unsigned maxautosaves) {
  const std::string name = autosave_name(std::time(nullptr));
  Storage storage;
  CleanAutosaves(storage, maxautosaves);
  if (save_if_unique(storage, name, type)) return;
  for (std::uint64_t i = 0; i < maxautosaves; ++i) {
    if (save_if_unique(storage, name + "-" + std::to_string(i), type)) return;
  }
}

// Every failure means no. // Quirk Q58
bool CheckOld() {
  try {
    Storage storage;
    const Configs configs = storage.List(0, "", true);
    const int64 now = std::time(nullptr);
    return std::any_of(configs.begin(), configs.end(),
                       [now](const Config& config) { return is_old_autosave(config, now); });
  } catch (...) {
    log_unknown_exception();
    return false;
  }
}

}  // namespace ConfSave
