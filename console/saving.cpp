#include "saving.h"

#include <algorithm>
#include <iostream>

#include "command_runner.h"
#include "exit_status.h"
#include "interrupt.h"
#include "progress_line.h"
#include "text.h"
#include "turns.h"

namespace console {
namespace {

/// More lines than that hide what was printed before.
constexpr std::size_t kMostMissing = 20;

/// In its list of files, tar takes a backslash for the beginning of an escape sequence.
const char* reason_for(const std::string& missing) {
  return missing.find('\\') != std::string::npos ? "tar cannot pack a name with a backslash; rename it"
                                                 : "it cannot be read, is gone, or is half of a database";
}

template <class Save>
auto in_time(const Deadline& deadline, Save save) {
  const ProgressLine progress("saving");
  return in_turns(deadline, [&](std::chrono::milliseconds wait) {
    forget_failed_command();
    return save(wait);
  });
}

}  // namespace

cs::Result<cs::Saved> save_in_time(const cs::Id& id, cs::SaveOptions how, const Deadline& deadline) {
  return in_time(deadline, [&](std::chrono::milliseconds wait) {
    how.wait = wait;
    return cs::save(id, how);
  });
}

cs::Result<cs::Saved> save_over_in_time(const cs::Snapshot& old, cs::SaveOptions how,
                                        const Deadline& deadline) {
  return in_time(deadline, [&](std::chrono::milliseconds wait) {
    how.wait = wait;
    return cs::save_over(old, how);
  });
}

cs::Result<cs::Autosaved> autosave_in_time(cs::AutosaveOptions how, const Deadline& deadline) {
  return in_time(deadline, [&](std::chrono::milliseconds wait) {
    how.wait = wait;
    return cs::autosave(how);
  });
}

int report_unsaved(cs::Error error, bool may_force) {
  if (interrupted()) {
    std::cerr << "confsave: interrupted; nothing was stored.\n";
    return kFailed;
  }
  const std::string& ending = failed_command();
  if (!ending.empty() && error.code == cs::Code::failed) error.text.append(": ").append(ending);
  return report_packing(error, may_force);
}

void print_warnings(const cs::Saved& saved) {
  const std::size_t shown = std::min(saved.missing.size(), kMostMissing);
  for (std::size_t i = 0; i < shown; ++i) {
    std::cerr << "confsave: warning: '" << readable(saved.missing[i])
              << "' is not in the snapshot: " << reason_for(saved.missing[i]) << ".\n";
  }
  if (shown < saved.missing.size()) {
    std::cerr << "confsave: warning: in all, " << saved.missing.size() << " files are not in it.\n";
  }
  print_warnings(saved.warnings);
}

void print_if_unchanged(const cs::Saved& saved) {
  if (saved.outcome != cs::Saved::Outcome::unchanged) return;
  std::cout << "Nothing has changed since '" << label(saved.snapshot) << "'. Nothing was stored.\n";
}

}  // namespace console
