#include "snapshots/restore_end.h"

#include <algorithm>
#include <cerrno>
#include <set>

#include "places.h"
#include "snapshots/blocked_signals.h"
#include "snapshots/database_logs.h"
#include "snapshots/edited.h"
#include "snapshots/sentence.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

/// What was there before stays there: it may be somebody's work.
void warn_of(const std::vector<Left>& left, std::vector<std::string>& warnings) {
  for (const Left& file : left) {
    warnings.push_back(file.path + ": " + (file.live.empty() ? "this" : "'" + file.live + "'") +
                       " is not as the restore has left it; it is kept here: take what is needed, and "
                       "delete the rest");
  }
}

bool is_below(const std::string& path, const std::string& directory) {
  return begins_with(path, directory + "/");
}

/// Whether `step` cannot be undone as long as `other` is not. A directory that moved away would take along
/// what it still has; a file would move into a directory of somebody else, and a log beside another
/// database.
bool depends(const Step& step, const Step& other) {
  if (other.root != step.root) return false;
  if (is_below(other.path, step.path) || is_below(step.path, other.path)) return true;
  const std::vector<std::string> logs = logs_of(other.path);
  return std::find(logs.begin(), logs.end(), step.path) != logs.end();
}

}  // namespace

Error take_back(Journal& journal, const Record& record, std::vector<Site>& sites, Foreign foreign,
                std::vector<std::string>& warnings, Error& unfinished) {
  const BlockedSignals blocked;
  Exchange exchange(sites, record.steps);
  Error first;
  std::string others;
  std::vector<const Step*> failed;
  for (std::size_t number = record.steps.size(); number-- > 0;) {
    const Step& step = record.steps[number];
    const bool waits = std::any_of(failed.begin(), failed.end(),
                                   [&step](const Step* other) { return depends(step, *other); });
    Error error =
        waits ? sites[step.root].beneath.failure(step.path, ENOTEMPTY) : exchange.undo(number, foreign);
    if (error.code == Code::ok) continue;
    failed.push_back(&step);
    // An error may be about a directory on the way.
    const std::string path = sites[step.root].beneath.shown(step.path);
    const bool is_named = first.code == Code::ok && error.path == path;
    if (first.code == Code::ok) first = std::move(error);
    if (!is_named) others += (others.empty() ? "; not put back either: " : ", ") + path;
  }
  warnings.insert(warnings.end(), exchange.kept().begin(), exchange.kept().end());
  if (first.code == Code::ok) first = exchange.sync();
  if (first.code == Code::ok) first = journal.set_state(State::undone, record.ending);
  if (first.code != Code::ok) {
    first.text += others;
    first.aftermath = Aftermath::mixed;
    return first;
  }
  // The files are as before, whatever fails here.
  unfinished = clean_up(journal, exchange, warnings);
  return {};
}

Error store_edits(Journal& journal, Record& record, std::vector<Site>& sites,
                  std::optional<ExclusiveStorage>& storage, const Deadline& deadline,
                  std::vector<std::string>& warnings) {
  storage.reset();
  const std::string kept = keep_edited(journal, record, sites, deadline, warnings);
  if (!kept.empty()) warnings.push_back("what was edited since is kept as '" + kept + "'");
  Result<ExclusiveStorage> locked = ExclusiveStorage::open(Deadline(deadline.left_afterwards()));
  if (locked) storage.emplace(std::move(*locked));
  // Without a storage nobody packs anything.
  return locked || locked.error().code != Code::busy ? Error{} : locked.error();
}

Error none_put_back(Error why, const Error& cause, const std::vector<Step>& steps,
                    const std::vector<Site>& sites) {
  why.text += "; not put back: " + sentence(cause);
  const char* before = "; not put back either: ";
  // A directory that was made has a second step for its attributes.
  std::set<std::string> named;
  for (const Step& step : steps) {
    const std::string path = sites[step.root].beneath.shown(step.path);
    if (!named.insert(path).second) continue;
    why.text += before + path;
    before = ", ";
  }
  why.aftermath = Aftermath::mixed;
  return why;
}

Error left_live(Error why, bool is_good) {
  if (why.code != Code::not_pending) {
    why.text += is_good ? "; the restore could not be confirmed" : "; the check failed";
    why.text += ", and the new files are live until a recovery takes them back";
  }
  why.aftermath = Aftermath::mixed;
  return why;
}

Error clean_up(Journal& journal, Exchange& exchange, std::vector<std::string>& warnings) {
  std::vector<Left> left;
  Error error = exchange.sweep(left);
  warn_of(left, warnings);
  if (error.code == Code::ok) error = journal.clear();
  if (error.code != Code::ok) {
    warnings.push_back(error.path + ": cleaning up failed: " + error.text +
                       "; the next restore, or 'confsave recover', tries again");
  }
  return error;
}

void finish_storage(Journal& journal, Exchange& exchange, std::optional<ExclusiveStorage>& storage,
                    const Error& stamped, std::vector<std::string>& warnings) {
  storage.reset();
  if (stamped.code != Code::ok) warnings.push_back("the load time is not stored: " + sentence(stamped));
  if (stamped.code == Code::ok || stamped.code == Code::changed_meanwhile) {
    static_cast<void>(clean_up(journal, exchange, warnings));
  }
}

Error confirm_record(Journal& journal, const Record& record, std::vector<Site>& sites,
                     std::optional<ExclusiveStorage>& storage, std::vector<std::string>& warnings) {
  Error stamped;
  if (record.load_time != 0) {
    stamped = storage ? storage->stamp(record.snapshot, record.load_time)
                      : Error{Code::no_storage, 0, storage_file(),
                              "the storage cannot be opened, or another process locks it"};
  }
  const Ending ending = record.window.exists() ? Ending::confirmed : Ending::none;
  if (Error error = journal.set_state(State::exchanged, ending); error.code != Code::ok) return error;
  if (storage && stamped.code == Code::ok) stamped = storage->commit();
  Exchange exchange(sites, record.steps);
  finish_storage(journal, exchange, storage, stamped, warnings);
  return {};
}

}  // namespace ConfSave::snapshots
