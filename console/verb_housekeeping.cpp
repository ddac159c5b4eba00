#include <algorithm>
#include <iostream>

#include "advice.h"
#include "destination.h"
#include "directories.h"
#include "exit_status.h"
#include "interrupt.h"
#include "lock.h"
#include "permissions.h"
#include "snapshots.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

ConfSave::Configs autosaves_of_this_version() {
  ConfSave::Storage storage;
  return storage.FindMatching("autosave*", ConfSave::CURRENT_VERSION, true);
}

ConfSave::int64 newest(const ConfSave::Configs& configs) {
  ConfSave::int64 time = 0;
  for (const ConfSave::Config& config : configs) time = std::max(time, config.save_time);
  return time;
}

}  // namespace

int autosave(const Options& options) {
  if (!check_directories()) return kFailed;
  OperationLock lock;
  if (const int status = lock.take("an autosave", options.wait); status != kDone) return status;
  if (const int status = check_storage(); status != kDone) return status;
  warn_without_failover_files(options.type);
  warn_of_acls(Destination(""));

  const std::time_t start = later_than(newest(autosaves_of_this_version()));
  try {
    ConfSave::AutoSave("", options.type, options.max);
  } catch (const XTOOStatus& error) {
    if (interrupted()) {
      std::cerr << "confsave: interrupted; nothing was stored.\n";
    } else {
      std::cerr << "confsave: the autosave failed: " << reason(error) << ".\n";
      print_next_step();
    }
    return kFailed;
  }
  const ConfSave::Configs stored = autosaves_of_this_version();
  const auto is_new = [&](const ConfSave::Config& config) { return is_since(config.save_time, start); };
  if (std::any_of(stored.begin(), stored.end(), is_new)) return kDone;
  std::cerr << "confsave: no autosave was stored.\n";
  print_next_step();
  return kFailed;
}

int check_old(const Options&) {
  if (const int status = check_storage(); status != kDone) return status;
  std::cout << (ConfSave::CheckOld() ? "An autosave older than 31 days is stored.\n"
                                     : "No autosave older than 31 days is stored.\n");
  return kDone;
}

int version(const Options&) {
  std::cout << "confsave " << CONFSAVE_RELEASE << ", for version "
            << ConfSave::Config::version(ConfSave::CURRENT_VERSION) << " of the gateway\n";
  return kDone;
}

}  // namespace console
