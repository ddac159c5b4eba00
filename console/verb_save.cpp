#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>

#include "advice.h"
#include "command_runner.h"
#include "destination.h"
#include "directories.h"
#include "exit_status.h"
#include "interrupt.h"
#include "names.h"
#include "permissions.h"
#include "question.h"
#include "report.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

using Clock = std::chrono::steady_clock;
using Outcome = cs::Saved::Outcome;

/// More lines than that hide what was printed before.
constexpr std::size_t kMostMissing = 20;

/// Saves within the time that the options allow. The library does not notice an interrupt while it waits,
/// so it waits a second at a time.
cs::Result<cs::Saved> save_in_time(const cs::Id& id, cs::SaveOptions how, unsigned seconds) {
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    how.wait =
        std::clamp<std::chrono::milliseconds>(left, std::chrono::milliseconds(0), std::chrono::seconds(1));
    forget_failed_command();
    auto saved = cs::save(id, how);
    const bool again = !saved && saved.error().code == cs::Code::busy && left > how.wait;
    if (!again || interrupted()) return saved;
  }
}

std::string question(const cs::Id& id) {
  cs::Query query;
  query.pattern = id.name;
  query.version = id.version;
  query.corlu_config = true;
  const auto old = cs::find(query);
  const std::string when = old ? ", saved on " + ConfSave::time_format(old->config.save_time) + "," : "";
  return "'" + label(id.name, id.version) + "'" + when + " exists. Overwrite it?";
}

int report_failure(cs::Error error) {
  if (interrupted()) {
    std::cerr << "confsave: interrupted; nothing was stored.\n";
    return kFailed;
  }
  if (const auto& failed = failed_command(); failed && error.code == cs::Code::failed) {
    error.text.append(": ").append(failed->action).append(", ").append(failed->ending);
  }
  return report(error, true);
}

const char* name_of(Outcome outcome) {
  switch (outcome) {
    case Outcome::created:
      return "created";
    case Outcome::replaced:
      return "replaced";
    case Outcome::unchanged:
      break;
  }
  return "unchanged";
}

void print_warnings(const cs::Saved& saved) {
  const std::size_t shown = std::min(saved.missing.size(), kMostMissing);
  for (std::size_t i = 0; i < shown; ++i) {
    std::cerr << "confsave: warning: '" << readable(saved.missing[i])
              << "' is not in the snapshot: it cannot be read, or is gone.\n";
  }
  if (shown < saved.missing.size()) {
    std::cerr << "confsave: warning: in all, " << saved.missing.size() << " files are not in it.\n";
  }
  for (const std::string& warning : saved.warnings) {
    std::cerr << "confsave: warning: " << readable(warning) << ".\n";
  }
}

void print(const cs::Saved& saved, bool json) {
  if (json) {
    Json document = json_id(saved.snapshot);
    document["result"] = name_of(saved.outcome);
    document["files"] = saved.files;
    document["bytes"] = saved.bytes;
    document["missing"] = json_all(saved.missing);
    print_json(document);
  } else if (saved.outcome == Outcome::unchanged) {
    std::cout << "Nothing has changed since '" << label(saved.snapshot) << "'. Nothing was stored.\n";
  }
}

}  // namespace

int save(const Options& options) {
  if (!check_name(options.snapshot.name)) return kUsage;
  if (!check_directories()) return kFailed;
  const cs::Id id{options.snapshot.name, options.snapshot.version.value_or(ConfSave::CURRENT_VERSION)};
  cs::SaveOptions how;
  how.type = options.type;
  how.comment = options.comment;
  how.overwrite = how.allow_empty = options.force;
  how.if_changed = options.if_changed;
  auto saved = save_in_time(id, how, options.wait);
  if (!saved && saved.error().code == cs::Code::taken && isatty(STDIN_FILENO) == 1) {
    // No lock is held now.
    if (!ask(question(id))) {
      std::cerr << "confsave: " << (interrupted() ? "interrupted; " : "") << "nothing was stored.\n";
      return kDeclined;
    }
    how.overwrite = true;
    saved = save_in_time(id, how, options.wait);
  }
  if (!saved) return report_failure(saved.error());
  print_warnings(*saved);
  if (saved->outcome != Outcome::unchanged) {
    warn_without_failover_files(options.type);
    warn_of_acls(Destination(""));
  }
  print(*saved, options.json);
  return kDone;
}

}  // namespace console
