// autosave: saves under a name made from the time, then deletes old autosaves.

#include <ctime>
#include <set>

#include "snapshots/arguments.h"
#include "snapshots/audit.h"
#include "snapshots/boundary.h"
#include "snapshots/compare.h"
#include "snapshots/database_logs.h"
#include "snapshots/dated_name.h"
#include "snapshots/lock.h"
#include "snapshots/summary.h"
#include "snapshots/under_lock.h"
#include "snapshots/victims.h"

namespace ConfSave::snapshots {

bool is_autosave(const std::string& name) { return is_dated_name(kAutosavePrefix, name); }

namespace {

/// The first name of this moment that is free.
Result<std::string> free_name(const Deadline& deadline) {
  const std::string base = dated_name(kAutosavePrefix, std::time(nullptr));
  Query query;
  query.pattern = base + "*";
  query.version = CURRENT_VERSION;
  query.wait = deadline.left();
  const Result<Snapshots> rows = list(query);
  if (!rows) return rows.error();
  std::set<std::string> taken;
  for (const Snapshot& row : *rows) taken.insert(row.config.name);
  std::string name = base;
  for (int number = 0; taken.count(name) != 0; ++number) name = base + "-" + std::to_string(number);
  return name;
}

Result<Saved> save_new(const AutosaveOptions& options, const Deadline& deadline) {
  SaveOptions how;
  how.type = options.type;
  how.if_changed = options.if_changed;
  for (;;) {
    const Result<std::string> name = free_name(deadline);
    if (!name) return name.error();
    Result<Saved> saved = save_under_lock({*name}, how, deadline);
    // A program that does not take "confsave.lock" was faster.
    if (!saved && saved.error().code == Code::taken) continue;
    const bool is_unchanged = saved && saved->outcome == Saved::Outcome::unchanged;
    // Nobody looks at what is saved every night, and the manifest does not show a damaged archive.
    const Result<bool> suffices =
        is_unchanged ? has_bytes_of_live(saved->snapshot, deadline) : Result<bool>(true);
    if (!suffices) return suffices.error();
    if (!*suffices) {
      how.if_changed = false;
      continue;
    }
    audit_save({*name}, saved);
    return saved;
  }
}

/// From here on a failure is one of the deletions: the new snapshot is stored.
void delete_surplus(const AutosaveOptions& options, const Deadline& deadline, Autosaved& done) {
  if (is_torn(done.saved)) {
    done.undecided = {Code::changed_meanwhile, 0, "",
                      "the new one may hold a part of a transaction of the configuration database"};
    return;
  }
  Surplus surplus;
  surplus.keep = options.most;
  surplus.fresh = done.saved.snapshot;
  Error error = add_unfinished(surplus, deadline);
  if (error.code == Code::ok) {
    Result<Choice> choice = choose_victims(surplus, deadline);
    if (choice) {
      delete_victims(std::move(choice->victims), deadline, done.deleted, done.undeleted);
      return;
    }
    error = choice.error();
  }
  done.undecided = std::move(error);
}

Result<Autosaved> save_and_delete(const AutosaveOptions& options) {
  if (options.most < 1) return Error{Code::bad_argument, 0, "", "at least one autosave must stay"};
  if (Error error = check_type(options.type); error.code != Code::ok) return error;
  const Deadline deadline(options.wait);
  const Result<Lock> lock = Lock::take("an autosave", deadline);
  if (!lock) return lock.error();
  // No restore is about a snapshot that is not stored yet.
  if (Error error = recover_before({}, deadline); error.code != Code::ok) return error;
  Result<Saved> saved = save_new(options, deadline);
  if (!saved) return saved.error();
  Autosaved done;
  done.saved = std::move(*saved);
  delete_surplus(options, deadline, done);
  keep_summary();
  return done;
}

}  // namespace

Result<Autosaved> autosave(const AutosaveOptions& options) {
  return at_boundary([&] { return save_and_delete(options); });
}

}  // namespace ConfSave::snapshots
