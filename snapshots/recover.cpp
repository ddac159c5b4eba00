// recover: finishes or undoes what an interrupted restore has left.

#include "snapshots/recover.h"

#include <algorithm>
#include <cerrno>

#include "places.h"
#include "snapshots/archive_path.h"
#include "snapshots/audit.h"
#include "snapshots/boot.h"
#include "snapshots/boundary.h"
#include "snapshots/check_owner.h"
#include "snapshots/edited.h"
#include "snapshots/lock.h"

namespace ConfSave::snapshots {
namespace {

std::string quoted(const Snapshot& snapshot) { return "'" + printable(snapshot.config.name) + "'"; }

/// What was there before stays there: it may be somebody's work.
void warn_of(const std::vector<std::string>& left, std::vector<std::string>& warnings) {
  const char* const text =
      ": this file is not as the restore has left it; it stays, delete it when it is not needed";
  for (const std::string& path : left) warnings.push_back(path + text);
}

bool is_below(const std::string& path, const std::string& directory) {
  return path.compare(0, directory.size() + 1, directory + "/") == 0;
}

/// The files are as the restore has left them, except what was edited since.
bool is_live(State state) { return state == State::checking || state == State::pending; }

const char* cause(Ending ending) {
  switch (ending) {
    case Ending::reverted:
      return "demanded";
    case Ending::expired:
      return "not confirmed in time";
    case Ending::restarted:
      return "not confirmed before the restart";
    default:
      return "";
  }
}

class Recovering {
 public:
  /// `ending` is that of a pending restore.
  Recovering(Journal& journal, Record& record, Ending ending, const Deadline& deadline)
      : journal_(journal), record_(record), deadline_(deadline) {
    recovery_.name = record.snapshot.config.name;
    recovery_.version = record.snapshot.config.vers;
    if (record.state == State::pending) record.ending = ending;
  }

  /// What could not be finished is a warning for a person, and in `unfinished` for who goes on.
  Result<Recovery> run(Error& unfinished) {
    bool puts_back =
        is_live(record_.state) || record_.state == State::prepared || record_.state == State::reverting;
    Result<std::vector<Site>> sites = open_sites(record_.roots, !puts_back);
    if (!sites) return sites.error();
    Exchange exchange(*sites, record_.steps);
    // A restore that failed to record its end was undone, and may have failed to record that.
    if (record_.state == State::exchanged) {
      const Result<bool> has_begun = exchange.has_undone_step();
      if (!has_begun) return has_begun.error();
      puts_back = *has_begun;
    }
    if (puts_back) return put_back(*sites, unfinished);
    warn_of_other_directories(*sites);
    recovery_.outcome =
        record_.state == State::exchanged ? Recovery::Outcome::finished : Recovery::Outcome::undone;
    if (record_.state == State::exchanged) unfinished = stamp();
    if (unfinished.code == Code::ok) unfinished = clean_up(journal_, exchange, recovery_.warnings);
    return std::move(recovery_);
  }

 private:
  void warn_of_other_directories(const std::vector<Site>& sites) {
    for (std::size_t root = 0; root < sites.size(); ++root) {
      if (!sites[root].name.empty()) continue;
      const std::string path = printable(record_.roots[root].path);
      recovery_.warnings.push_back(path + ": this is not the directory that was restored into; if '" +
                                   record_.roots[root].staging + "' is in it some day, delete that");
    }
  }

  Result<Recovery> put_back(std::vector<Site>& sites, Error& unfinished) {
    if (is_live(record_.state)) {
      recovery_.kept = keep_edited(journal_, record_, sites, deadline_, recovery_.warnings);
    }
    const Result<ExclusiveStorage> storage = ExclusiveStorage::open(deadline_);
    if (!storage && storage.error().code == Code::busy && !goes_on_without_storage()) {
      return storage.error();
    }
    Error error = begin_reverting();
    if (error.code == Code::ok) {
      const Foreign foreign = record_.state == State::reverting ? Foreign::set_aside : Foreign::leave;
      error = take_back(journal_, record_, sites, foreign, recovery_.warnings, unfinished);
    }
    if (error.code != Code::ok) return error;
    recovery_.outcome =
        record_.ending == Ending::none ? Recovery::Outcome::undone : Recovery::Outcome::reverted;
    return std::move(recovery_);
  }

  /// A person may be locked out until the files are back. Whoever keeps the storage for so long can at
  /// worst save a mixture.
  bool goes_on_without_storage() {
    if (record_.ending != Ending::expired && record_.ending != Ending::restarted) return false;
    recovery_.warnings.emplace_back(
        "another process did not give the storage free; a save of it at this moment may hold old and new "
        "files");
    return true;
  }

  /// From here on what was edited is kept, and nobody can confirm the restore.
  Error begin_reverting() {
    if (!is_live(record_.state)) return {};
    Error error = journal_.set_state(State::reverting, record_.ending);
    if (error.code == Code::ok) record_.state = State::reverting;
    return error;
  }

  /// The snapshot, or all of the storage, may be gone by now.
  Error stamp() {
    if (record_.load_time == 0) return {};
    Result<ExclusiveStorage> storage = ExclusiveStorage::open(deadline_);
    Error error = storage ? storage->stamp(record_.snapshot, record_.load_time) : storage.error();
    if (error.code == Code::ok) error = storage->commit();
    if (error.code == Code::ok) return {};
    recovery_.warnings.push_back("the load time of " + quoted(record_.snapshot) +
                                 " is not stored: " + error.text);
    const bool is_gone = error.code == Code::changed_meanwhile || error.code == Code::no_storage;
    return is_gone ? Error{} : error;
  }

  Journal& journal_;
  Record& record_;
  const Deadline& deadline_;
  Recovery recovery_;
};

/// How a pending restore ends if it ends now; Ending::none if it goes on.
Result<Ending> ending_of(const Record& record, Demand demand) {
  if (record.state != State::pending) return Ending::none;
  if (demand == Demand::now) return Ending::reverted;
  const Result<int64> left = left_of(record.window);
  if (!left) return left.error();
  if (*left > 0) return Ending::none;
  return is_of_another_boot(record.window) ? Ending::restarted : Ending::expired;
}

void log_end(const Record& record, const Result<Recovery>& recovery) {
  if (record.ending == Ending::none || record.ending == Ending::confirmed) return;
  AuditFields more = {{"cause", cause(record.ending)},
                      {"loaded-by", record.author},
                      {"kept", recovery ? recovery->kept : ""}};
  if (recovery) {
    for (const std::string& warning : recovery->warnings) more.emplace_back("warning", warning);
  }
  const Config& config = record.snapshot.config;
  if (recovery) {
    audit("revert", record.snapshot, "ok", more);
  } else {
    audit("revert", Id{config.name, config.vers}, recovery.error(), more);
  }
}

}  // namespace

Result<std::optional<Record>> read_record(const Deadline& deadline) {
  Result<std::optional<Journal>> journal = Journal::open(deadline.left());
  if (!journal) return journal.error();
  return *journal ? (*journal)->read() : std::optional<Record>();
}

Error refuse_pending(const Snapshot& snapshot) {
  return {Code::pending, 0, "", "the restore of " + quoted(snapshot) + " waits to be confirmed"};
}

Result<Recovery> recover_under_lock(const Deadline& deadline, Error& unfinished, Demand demand) {
  // Most of the time there is nothing to recover, and nothing is to be made then.
  Result<std::optional<Record>> found = read_record(deadline);
  if (!found) return found.error();
  if (!*found) return Recovery{};
  Record& record = **found;
  std::optional<CheckOwner> owner;
  if (record.state == State::checking) {
    Result<CheckOwner> become = CheckOwner::become(record.snapshot);
    if (!become) return become.error();
    owner.emplace(std::move(*become));
  }
  const Result<Ending> ending = ending_of(record, demand);
  if (!ending) return ending.error();
  if (record.state == State::pending && *ending == Ending::none) return refuse_pending(record.snapshot);
  const bool is_mixed = record.state == State::prepared || record.state == State::reverting;
  Result<Journal> journal = Journal::open_to_write(deadline.left());
  if (!journal) return journal.error();
  Result<Recovery> recovery = Recovering(*journal, record, *ending, deadline).run(unfinished);
  log_end(record, recovery);
  if (recovery || !is_mixed) return recovery;
  Error error = recovery.error();
  error.aftermath = Aftermath::mixed;
  return error;
}

namespace {

Result<Recovery> lock_and_recover(const ChangeOptions& options) {
  const Deadline deadline(options.wait);
  const Result<Lock> lock = Lock::take("a recovery", deadline);
  if (!lock) return lock.error();
  Error unfinished;
  return recover_under_lock(deadline, unfinished, Demand::when_due);
}

Result<std::optional<Unfinished>> find_unfinished(const Deadline& deadline) {
  const Result<std::optional<Record>> record = read_record(deadline);
  if (!record) return record.error();
  if (!*record) return std::optional<Unfinished>();
  const Snapshot& snapshot = (*record)->snapshot;
  Unfinished unfinished{snapshot.config.name, snapshot.config.vers, (*record)->state == State::pending};
  if ((*record)->state == State::checking) {
    unfinished.is_pending = CheckOwner::is_alive();
  } else if (unfinished.is_pending) {
    return std::optional<Unfinished>(std::move(unfinished));
  } else if (Lock::is_taken()) {
    // Its process is at work.
    return std::optional<Unfinished>();
  }
  return std::optional<Unfinished>(std::move(unfinished));
}

}  // namespace

Error take_back(Journal& journal, const Record& record, std::vector<Site>& sites, Foreign foreign,
                std::vector<std::string>& warnings, Error& unfinished) {
  Exchange exchange(sites, record.steps);
  Error first;
  std::string others;
  std::vector<const Step*> failed;
  for (std::size_t number = record.steps.size(); number-- > 0;) {
    const Step& step = record.steps[number];
    // A directory that moved away would take along what it still has, and a file would move into a
    // directory of somebody else.
    const bool waits = std::any_of(failed.begin(), failed.end(), [&step](const Step* other) {
      return other->root == step.root &&
             (is_below(other->path, step.path) || is_below(step.path, other->path));
    });
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

Error clean_up(Journal& journal, Exchange& exchange, std::vector<std::string>& warnings) {
  std::vector<std::string> left;
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
  if (stamped.code != Code::ok) warnings.push_back("the load time is not stored: " + stamped.text);
  if (stamped.code == Code::ok || stamped.code == Code::changed_meanwhile) {
    static_cast<void>(clean_up(journal, exchange, warnings));
  }
}

Error confirm_record(Journal& journal, const Record& record, std::vector<Site>& sites,
                     std::optional<ExclusiveStorage>& storage, std::vector<std::string>& warnings) {
  Error stamped;
  if (!storage) {
    stamped = {Code::no_storage, 0, storage_file(), "the storage cannot be opened"};
  } else if (record.load_time != 0) {
    stamped = storage->stamp(record.snapshot, record.load_time);
  }
  const Ending ending = record.window.exists() ? Ending::confirmed : Ending::none;
  if (Error error = journal.set_state(State::exchanged, ending); error.code != Code::ok) return error;
  if (stamped.code == Code::ok) stamped = storage->commit();
  Exchange exchange(sites, record.steps);
  finish_storage(journal, exchange, storage, stamped, warnings);
  return {};
}

Error recover_first(const Deadline& deadline) {
  Error unfinished;
  const Result<Recovery> recovery = recover_under_lock(deadline, unfinished, Demand::when_due);
  return recovery ? Error{} : recovery.error();
}

Error recover_wholly(const Deadline& deadline) {
  Error unfinished;
  const Result<Recovery> recovery = recover_under_lock(deadline, unfinished, Demand::when_due);
  return recovery ? unfinished : recovery.error();
}

Error check_finished(const Deadline& deadline) {
  const Result<std::optional<Unfinished>> found = find_unfinished(deadline);
  if (!found) return found.error();
  if (!*found) return {};
  const std::string name = "'" + printable((*found)->name) + "'";
  if ((*found)->is_pending) {
    const Result<std::optional<Record>> record = read_record(deadline);
    const bool is_checked = record && *record && (*record)->state == State::checking;
    return {Code::pending, 0, "",
            "the restore of " + name + (is_checked ? " waits for its check" : " waits to be confirmed")};
  }
  return {Code::needs_attention, 0, "",
          "the restore of " + name + " was interrupted; run 'confsave recover' first"};
}

Result<Recovery> recover(const ChangeOptions& options) {
  return at_boundary([&] { return lock_and_recover(options); });
}

Result<std::optional<Unfinished>> unfinished(const ReadOptions& options) {
  return at_boundary([&] { return find_unfinished(Deadline(options.wait)); });
}

}  // namespace ConfSave::snapshots
