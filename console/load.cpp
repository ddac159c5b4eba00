#include <unistd.h>

#include <iostream>

#include "commands.h"
#include "conversation.h"
#include "exit_status.h"
#include "gateway.h"
#include "lock.h"
#include "names.h"
#include "parents.h"

namespace console {
namespace {

/// The one configuration that is meant. Tells when there is none, or more than one, or one that cannot be
/// handed on, and sets `status`.
std::optional<ConfSave::Config> find_only(const Options& options, int& status) {
  ConfSave::Storage storage;
  const ConfSave::Configs found = storage.FindMatching(options.name, options.version, true);
  if (found.empty()) {
    std::cerr << "confsave: nothing is stored as '" << options.name << "'; confsave list shows what is.\n";
    status = kNotFound;
    return std::nullopt;
  }
  if (found.size() > 1) {
    std::cerr << "confsave: '" << options.name << "' matches more than one; say more of the name, or give "
              << "--version:\n";
    for (ConfSave::Config config : found) {
      config.name = printable(config.name);
      std::cerr << config << '\n';
    }
    status = kAmbiguous;
    return std::nullopt;
  }
  if (!is_name(found.front().name)) {
    std::cerr << "confsave: the stored name '" << printable(found.front().name)
              << "' has characters that no name may have; it is left alone.\n";
    status = kFailed;
    return std::nullopt;
  }
  return found.front();
}

bool is_refused_as_newer(const ConfSave::Config& config, const Options& options) {
  if (config.vers <= ConfSave::CURRENT_VERSION || !options.yes || options.force) return false;
  std::cerr << "confsave: '" << config.name << "' is of version " << config.version()
            << ", newer than the running " << ConfSave::Config::version(ConfSave::CURRENT_VERSION)
            << "; --force restores it all the same.\n";
  return true;
}

int failure(const Conversation& conversation) {
  if (conversation.disproved()) return kFailed;
  if (conversation.said("Operation aborted!\n")) return kDeclined;
  if (conversation.said("No such config.\n")) return kNotFound;
  std::cerr
      << "confsave: the configuration may be restored in part. Load again, or load another snapshot.\n";
  tell_what_to_look_at();
  return kFailed;
}

int restore(const ConfSave::Config& config, const Options& options) {
  const std::time_t start = later_than(config.load_time);
  {
    const ParentDirectories parents(options.target);
    const Conversation conversation([](const std::string& name, std::time_t since) {
      return was_saved(name, ConfSave::CURRENT_VERSION, since);
    });
    ConfSave::load(config.name, options.target.empty() ? nullptr : options.target.c_str(), config.vers,
                   options.yes);
    if (!conversation.errors().empty()) return failure(conversation);
  }
  if (was_loaded(config.name, config.vers, start)) return kDone;
  std::cerr << "confsave: that '" << config.name << "' was loaded could not be noted in the storage.\n";
  tell_what_to_look_at();
  return kFailed;
}

}  // namespace

int load(const Options& options) {
  Options checked = options;
  if (!check_pattern(checked.name)) return kUsage;
  if (!checked.target.empty() && !check_target(checked.target)) return kUsage;
  if (!checked.yes && isatty(STDIN_FILENO) == 0) {
    std::cerr << "confsave: load asks questions, and standard input is no terminal; --yes answers them.\n";
    return kUsage;
  }
  if (!check_directories()) return kFailed;
  OperationLock lock;
  if (const int status = lock.take("loading " + checked.name, checked.wait); status != kDone) return status;
  if (!check_storage()) return kNoStorage;

  int status = kDone;
  const auto config = find_only(checked, status);
  if (!config) return status;
  if (is_refused_as_newer(*config, checked)) return kNewer;
  if (!checked.force && !can_be_restored(*config)) {
    std::cerr << "confsave: nothing was touched; --force tries it all the same.\n";
    return kFailed;
  }
  return restore(*config, checked);
}

}  // namespace console
