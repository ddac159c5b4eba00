#include <algorithm>
#include <chrono>
#include <ctime>
#include <iostream>

#include "exit_status.h"
#include "names.h"
#include "saving.h"
#include "verb_functions.h"

namespace console {
namespace {

/// So many autosaves of one second have a name.
constexpr unsigned kMostOfOneSecond = 1000;

cs::Result<cs::Snapshots> autosaves(std::chrono::milliseconds wait) {
  cs::Query query;
  query.pattern = "autosave-*";
  query.order = cs::Query::Order::saved;
  query.wait = wait;
  auto found = cs::list(query);
  if (!found) return found;
  const auto is_other = [](const cs::Snapshot& snapshot) { return !is_autosave(snapshot.config.name); };
  found->erase(std::remove_if(found->begin(), found->end(), is_other), found->end());
  return found;
}

std::string name_of_now() {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  localtime_r(&now, &parts);
  char text[64] = "";
  return {text, std::strftime(text, sizeof text, "autosave-%Y-%m-%d-%H-%M-%S", &parts)};
}

/// Under the first name of this moment that is free.
cs::Result<cs::Saved> save_new(const Options& options) {
  cs::SaveOptions how;
  how.type = options.type;
  how.if_changed = options.if_changed;
  const std::string name = name_of_now();
  auto saved = save_in_time({name}, how, options.wait);
  for (unsigned number = 0; number < kMostOfOneSecond; ++number) {
    if (saved || saved.error().code != cs::Code::taken) break;
    saved = save_in_time({name + "-" + std::to_string(number)}, how, options.wait);
  }
  return saved;
}

/// Deletes the oldest autosaves but `options.max`. A pinned one does not count, and stays; so does the one
/// that was just stored, whatever the clock says. One that cannot be deleted does not stop the others.
int delete_surplus(const cs::Saved& saved, const Options& options) {
  const std::chrono::seconds wait(options.wait);
  auto found = autosaves(wait);
  if (!found) return report(found.error(), true);
  const auto pinned = [](const cs::Snapshot& snapshot) { return snapshot.pinned; };
  found->erase(std::remove_if(found->begin(), found->end(), pinned), found->end());
  std::size_t surplus = found->size() > options.max ? found->size() - options.max : 0;
  cs::RemoveOptions how;
  how.wait = wait;
  int status = kDone;
  for (const cs::Snapshot& old : *found) {
    if (surplus == 0) break;
    if (old.id == saved.snapshot.id) continue;
    --surplus;
    const cs::Error error = cs::remove(id_of(old), how);
    const bool gone = error.code == cs::Code::ok || error.code == cs::Code::not_found;
    if (!gone && error.code != cs::Code::pinned) status = report(error, true);
  }
  return status;
}

}  // namespace

int autosave(const Options& options) {
  const auto saved = save_new(options);
  if (!saved) return report_unsaved(saved.error());
  print_warnings(*saved);
  print_if_unchanged(*saved);
  return delete_surplus(*saved, options);
}

int check_old(const Options& options) {
  const auto found = autosaves(std::chrono::seconds(1));
  if (!found) return report(found.error());
  if (found->empty()) {
    std::cout << "There is no autosave.\n";
    return kFindings;
  }
  const ConfSave::Config& newest = found->back().config;
  std::cout << "The newest autosave is '" << newest.name << "', saved on "
            << ConfSave::time_format(newest.save_time) << ".\n";
  constexpr ConfSave::int64 kDay = 86400;
  const ConfSave::int64 age = static_cast<ConfSave::int64>(std::time(nullptr)) - newest.save_time;
  return age > options.days * kDay ? kFindings : kDone;
}

int version(const Options&) {
  std::cout << "confsave " << CONFSAVE_RELEASE << ", for version "
            << ConfSave::Config::version(ConfSave::CURRENT_VERSION) << " of the gateway\n";
  return kDone;
}

}  // namespace console
