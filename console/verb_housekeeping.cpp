// autosave, check-old, version.

#include <algorithm>
#include <ctime>
#include <iostream>

#include "deleting.h"
#include "exit_status.h"
#include "saving.h"
#include "verb_functions.h"

namespace console {

int autosave(const Options& options) {
  cs::AutosaveOptions how;
  how.most = options.max;
  how.type = options.type;
  how.if_changed = options.if_changed;
  auto done = autosave_in_time(how, options.deadline);
  if (!done) return report_unsaved(done.error(), false);
  print_warnings(done->saved);
  print_if_unchanged(done->saved);
  if (cs::Error& error = done->undecided; error.code != cs::Code::ok) {
    const bool is_new = done->saved.outcome != cs::Saved::Outcome::unchanged;
    const std::string stored = is_new ? "'" + done->saved.snapshot.config.name + "' is stored, and " : "";
    error.text.insert(0, stored + "no old autosave was deleted: ");
    return report(error, true);
  }
  delete_again(done->undeleted, options.deadline, done->deleted);
  return report_undeleted(done->undeleted);
}

int check_old(const Options& options) {
  cs::Query query;
  query.pattern = "autosave-*";
  query.order = cs::Query::Order::saved;
  query.wait = options.deadline.left();
  const auto found = cs::list(query);
  if (!found) return report(found.error());
  const auto last = std::find_if(found->rbegin(), found->rend(), [](const cs::Snapshot& snapshot) {
    return cs::is_autosave(snapshot.config.name);
  });
  if (last == found->rend()) {
    std::cout << "There is no autosave.\n";
    return kFindings;
  }
  const ConfSave::Config& newest = last->config;
  std::cout << "The newest autosave is '" << newest.name << "', saved on "
            << ConfSave::time_format(newest.save_time) << ".\n";
  constexpr ConfSave::int64 kDay = 86400;
  const auto now = static_cast<ConfSave::int64>(std::time(nullptr));
  if (newest.save_time > now + kDay) {
    std::cout << "That is more than a day ahead of the clock, so its age is unknown.\n";
    return kFindings;
  }
  return newest.save_time < now - options.days * kDay ? kFindings : kDone;
}

int version(const Options&) {
  std::cout << "confsave " << CONFSAVE_RELEASE << ", for version "
            << ConfSave::Config::version(ConfSave::CURRENT_VERSION) << " of the gateway\n";
  return kDone;
}

}  // namespace console
