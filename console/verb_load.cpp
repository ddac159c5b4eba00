#include <places.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "advice.h"
#include "conversation.h"
#include "destination.h"
#include "directories.h"
#include "exit_status.h"
#include "interrupt.h"
#include "lock.h"
#include "names.h"
#include "permissions.h"
#include "snapshots.h"
#include "storage_wait.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

/// Keeps those without a version. False when the library could not tell one of them from the others.
bool keep_without_version(ConfSave::Configs& found) {
  const auto has_version = [](const ConfSave::Config& config) { return config.vers != 0; };
  const auto end = std::remove_if(found.begin(), found.end(), has_version);
  const bool is_clear = end == found.begin() || end == found.end();
  found.erase(end, found.end());
  return is_clear;
}

/// The one snapshot that matches. Otherwise prints the reason and sets `status`.
std::optional<ConfSave::Config> find_only(const Options& options, int& status) {
  ConfSave::Storage storage;
  const std::string& name = options.snapshot.name;
  ConfSave::Configs found = storage.FindMatching(name, options.snapshot.version.value_or(0), true);
  if (options.snapshot.version == 0 && !keep_without_version(found)) {
    std::cerr << "confsave: '" << printable(name) << "' is stored with and without a version. "
              << "'confsave shell' loads the one without: load NAME.\n";
    status = kFailed;
    return std::nullopt;
  }
  if (found.empty()) {
    print_not_found(name);
    status = kNotFound;
    return std::nullopt;
  }
  // Of several matches only one may have been read.
  const bool names_one = is_name(name) && options.snapshot.version.value_or(0) != 0;
  if (storage_is_damaged() && !names_one) {
    print_storage_damaged();
    status = kNoStorage;
    return std::nullopt;
  }
  if (found.size() > 1) {
    std::cerr << "confsave: '" << name << "' matches more than one snapshot. Type more of the name, "
              << "or give --version:\n";
    for (ConfSave::Config config : found) {
      config.name = printable(config.name);
      std::cerr << config << '\n';
    }
    status = kAmbiguous;
    return std::nullopt;
  }
  if (!is_name(found.front().name)) {
    std::cerr << "confsave: the stored name '" << printable(found.front().name)
              << "' has characters that a name must not have. Rename the row with sqlite3 in '"
              << printable(ConfSave::storage_file()) << "'.\n";
    status = kFailed;
    return std::nullopt;
  }
  if (!has_plain_name(found.front())) {
    status = kFailed;
    return std::nullopt;
  }
  return found.front();
}

bool is_refused_as_newer(const ConfSave::Config& config, const Options& options) {
  if (config.vers <= ConfSave::CURRENT_VERSION || !options.yes || options.force) return false;
  std::cerr << "confsave: '" << config.name << "' is of version " << config.version()
            << ", newer than the running " << ConfSave::Config::version(ConfSave::CURRENT_VERSION)
            << ". Give --force to restore it all the same.\n";
  return true;
}

int failure(const Conversation& conversation) {
  if (conversation.disproved()) return kFailed;
  if (conversation.printed("Operation aborted!\n")) {
    if (interrupted()) std::cerr << "confsave: interrupted; nothing was restored.\n";
    return interrupted() ? kFailed : kDeclined;
  }
  if (conversation.printed("No such config.\n")) return kNotFound;
  print_partial_restore();
  return kFailed;
}

int restore(const ConfSave::Config& config, const Options& options, const Destination& destination) {
  const std::time_t start = later_than(config.load_time);
  {
    const KeptPermissions permissions(destination);
    const Conversation conversation([](const std::string& name, std::time_t since) {
      return was_saved(name, ConfSave::CURRENT_VERSION, since);
    });
    ConfSave::load(config.name, options.target.empty() ? nullptr : options.target.c_str(), config.vers,
                   options.yes);
    if (!conversation.errors().empty()) return failure(conversation);
  }
  if (!destination.sync()) return kFailed;
  if (was_loaded(config.name, config.vers, start)) return kDone;
  print_missing_stamp(config.name);
  return kFailed;
}

}  // namespace

int load(const Options& options) {
  Options checked = options;
  if (!check_pattern(checked.snapshot.name)) return kUsage;
  if (!checked.target.empty() && !check_target(checked.target)) return kUsage;
  if (!checked.yes && isatty(STDIN_FILENO) == 0) {
    std::cerr << "confsave: load asks questions, but standard input is not a terminal. Give --yes to be "
                 "asked none.\n";
    return kUsage;
  }
  if (!check_directories()) return kFailed;
  OperationLock lock;
  if (const int status = lock.take("loading " + checked.snapshot.name, checked.wait); status != kDone)
    return status;
  if (const int status = check_storage(); status != kDone) return status;

  int status = kDone;
  const auto config = find_only(checked, status);
  if (!config) return status;
  if (is_refused_as_newer(*config, checked)) return kNewer;
  const Destination destination(checked.target);
  if (!destination.is_safe()) return kFailed;
  if (!checked.force && !can_be_restored(*config)) {
    if (!interrupted()) std::cerr << "confsave: nothing was restored. --force skips this rehearsal.\n";
    return kFailed;
  }
  return restore(*config, checked, destination);
}

}  // namespace console
