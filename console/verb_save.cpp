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
#include "verb_functions.h"

namespace console {
namespace {

int failure(const Conversation& conversation) {
  if (interrupted()) {
    std::cerr << "confsave: interrupted; nothing was stored.\n";
    return kFailed;
  }
  if (conversation.printed("Config is not overwritten.\n") ||
      conversation.printed("Operation aborted!\n")) {
    return kDeclined;
  }
  print_next_step();
  return kFailed;
}

}  // namespace

int save(const Options& options) {
  if (!check_name(options.name)) return kUsage;
  if (!check_directories()) return kFailed;
  OperationLock lock;
  if (const int status = lock.take("saving " + options.name, options.wait); status != kDone) return status;
  if (const int status = check_storage(); status != kDone) return status;
  warn_without_failover_files(options.type);
  warn_of_acls(Destination(""));

  const ConfSave::int64 stored_as = options.version != 0 ? options.version : ConfSave::CURRENT_VERSION;
  const auto old = find_exactly(options.name, stored_as);
  const std::time_t start = later_than(old ? old->save_time : 0);
  {
    const Conversation conversation;
    if (!ConfSave::save(options.name, options.type, options.version, options.force)) {
      return failure(conversation);
    }
  }
  if (was_saved(options.name, stored_as, start)) return kDone;
  std::cerr << "confsave: '" << options.name << "' was not stored.\n";
  print_next_step();
  return kFailed;
}

}  // namespace console
