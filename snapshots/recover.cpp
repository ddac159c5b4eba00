// recover: finishes or undoes what an interrupted restore has left.

#include "snapshots/recover.h"

#include <cerrno>

#include "snapshots/audit.h"
#include "snapshots/boot.h"
#include "snapshots/boundary.h"
#include "snapshots/check_owner.h"
#include "snapshots/edited.h"
#include "snapshots/lock.h"
#include "snapshots/preflight.h"
#include "snapshots/restore_end.h"
#include "snapshots/sentence.h"

namespace ConfSave::snapshots {
namespace {

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
    Result<std::vector<Site>> sites =
        open_sites(record_.roots, puts_back ? Need::old_files : Need::nothing);
    if (!sites) return sites.error();
    Exchange exchange(*sites, record_.steps);
    // The release before undid a restore whose end it failed to record, and may have failed to record that.
    if (record_.state == State::exchanged) {
      const Result<bool> has_begun = exchange.has_undone_step();
      if (!has_begun) return has_begun.error();
      // Every directory is needed for that.
      if (*has_begun) sites = open_sites(record_.roots, Need::old_files);
      if (!sites) return sites.error();
      puts_back = *has_begun;
    }
    if (puts_back) return put_back(*sites, unfinished);
    if (record_.state != State::exchanged) {
      if (Error error = exchange.check_undone(); error.code != Code::ok) return error;
    }
    warn_of_other_directories(record_.roots, *sites, recovery_.warnings);
    recovery_.outcome =
        record_.state == State::exchanged ? Recovery::Outcome::finished : Recovery::Outcome::undone;
    if (record_.state == State::exchanged) unfinished = stamp();
    if (unfinished.code == Code::ok) unfinished = clean_up(journal_, exchange, recovery_.warnings);
    return std::move(recovery_);
  }

 private:
  Result<Recovery> put_back(std::vector<Site>& sites, Error& unfinished) {
    if (is_live(record_.state)) {
      // The new files are whole: half of the old ones would be worse.
      if (Error error = check_way_back(sites, record_.steps); error.code != Code::ok) return error;
    }
    Result<Locked> storage = lock_storage(deadline_);
    if (!storage) return storage.error();
    if (is_live(record_.state)) storage = keep_edits(sites, std::move(*storage));
    if (!storage) return storage.error();
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

  /// Nobody packs a mixture while it has a value. It has none if the storage is gone, or is not waited for.
  using Locked = std::optional<ExclusiveStorage>;

  Result<Locked> lock_storage(const Deadline& deadline) {
    Result<ExclusiveStorage> storage = ExclusiveStorage::open(deadline);
    if (storage) return Locked(std::move(*storage));
    if (storage.error().code != Code::busy || goes_on_without_storage()) return Locked();
    return storage.error();
  }

  /// What was edited is stored like any other snapshot. That comes after the wait for the storage: who is
  /// refused for it tries again, and would store the edits without a word of their name.
  Result<Locked> keep_edits(std::vector<Site>& sites, Locked locked) {
    const bool was_locked = locked.has_value();
    locked.reset();
    recovery_.kept = keep_edited(journal_, record_, sites, deadline_, recovery_.warnings);
    if (!was_locked) return Locked();
    Result<Locked> storage = lock_storage(Deadline(kGrace));
    if (storage || recovery_.kept.empty()) return storage;
    Error error = storage.error();
    error.text += "; what was edited since is kept as '" + recovery_.kept + "'";
    return error;
  }

  /// A person may be locked out until the files are back. Whoever keeps the storage for so long can at
  /// worst save a mixture.
  bool goes_on_without_storage() {
    if (record_.ending != Ending::expired && record_.ending != Ending::restarted) return false;
    recovery_.warnings.emplace_back(
        "another process locks the storage; a snapshot that it saves now may hold old and new files: save "
        "again");
    return true;
  }

  /// From here on what was edited is kept, and nobody can confirm the restore.
  Error begin_reverting() {
    if (!is_live(record_.state)) return {};
    Error error = journal_.set_state(State::reverting, record_.ending);
    if (error.code == Code::ok) record_.state = State::reverting;
    return error;
  }

  /// The snapshot, or all of the storage, may be gone by now. On a full disk the time is given up: the old
  /// files would stay, and nothing else could be restored.
  Error stamp() {
    if (record_.load_time == 0) return {};
    Result<ExclusiveStorage> storage = ExclusiveStorage::open(deadline_);
    Error error = storage ? storage->stamp(record_.snapshot, record_.load_time) : storage.error();
    if (error.code == Code::ok) error = storage->commit();
    if (error.code == Code::ok) return {};
    recovery_.warnings.push_back("the load time of " + quoted(record_.snapshot.config.name) +
                                 " is not stored: " + error.text);
    const bool is_given_up = error.code == Code::changed_meanwhile || error.code == Code::no_storage ||
                             error.code == Code::no_space;
    return is_given_up ? Error{} : error;
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

/// Also what a library call recovers first, whose caller gets none of the warnings. That nothing can be
/// recovered is the error of each call.
void log_end(const Record& record, const Result<Recovery>& recovery, bool is_finished, Error* logged) {
  const bool is_reverted = record.ending != Ending::none && record.ending != Ending::confirmed;
  // A clean-up that fails is tried again by each command.
  if (!is_reverted && (!recovery || !is_finished)) return;
  if (!recovery && logged != nullptr) {
    const Error& error = recovery.error();
    if (error.code == Code::busy || (error.code == logged->code && error.path == logged->path)) return;
    *logged = error;
  }
  AuditFields more = {{"cause", cause(record.ending)},
                      {"loaded-by", record.author},
                      {"kept", recovery ? recovery->kept : ""}};
  if (recovery) {
    for (const std::string& warning : recovery->warnings) more.emplace_back("warning", warning);
  }
  const Config& config = record.snapshot.config;
  if (!recovery) {
    audit("revert", Id{config.name, config.vers}, recovery.error(), more);
  } else if (is_reverted) {
    audit("revert", record.snapshot, "ok", more);
  } else {
    const bool is_new = recovery->outcome == Recovery::Outcome::finished;
    audit("recover", record.snapshot, is_new ? "finished" : "undone", more);
  }
}

}  // namespace

Result<std::optional<Record>> read_record(const Deadline& deadline) {
  Result<std::optional<Journal>> journal = Journal::open(deadline.left());
  if (!journal) return journal.error();
  return *journal ? (*journal)->read() : std::optional<Record>();
}

std::string interruption(const Record& record) {
  const std::string restore = "the restore of " + quoted(record.snapshot.config.name);
  if (record.state == State::exchanged) return restore + " is kept, but not cleaned up";
  if (record.state == State::undone) return restore + " was taken back, but not cleaned up";
  return restore + " was interrupted";
}

Error refuse_pending(const Snapshot& snapshot) {
  return {Code::pending, 0, "",
          "the restore of " + quoted(snapshot.config.name) + " waits to be confirmed"};
}

Result<Recovery> recover_under_lock(const Deadline& deadline, Error& unfinished, Demand demand,
                                    Error* logged) {
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
  log_end(record, recovery, unfinished.code == Code::ok, logged);
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

/// A record that no process is at work on.
struct Rest {
  Record record;
  bool is_pending;
};

Result<std::optional<Rest>> find_rest(const Deadline& deadline) {
  Result<std::optional<Record>> found = read_record(deadline);
  if (!found) return found.error();
  if (!*found) return std::optional<Rest>();
  const State state = (*found)->state;
  const bool is_checked = state == State::checking;
  const bool is_pending = is_checked ? CheckOwner::is_alive() : state == State::pending;
  if (!is_checked && !is_pending) {
    if (Lock::is_taken()) return std::optional<Rest>();
    // Its process may have ended since.
    found = read_record(deadline);
    if (!found) return found.error();
    if (!*found) return std::optional<Rest>();
  }
  Rest rest{std::move(**found), is_pending};
  return std::optional<Rest>(std::move(rest));
}

Result<std::optional<Unfinished>> find_unfinished(const Deadline& deadline) {
  const Result<std::optional<Rest>> found = find_rest(deadline);
  if (!found) return found.error();
  if (!*found) return std::optional<Unfinished>();
  const Rest& rest = **found;
  const Config& config = rest.record.snapshot.config;
  return std::optional<Unfinished>({config.name, config.vers, rest.is_pending});
}

}  // namespace

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
  const Result<std::optional<Rest>> found = find_rest(deadline);
  if (!found) return found.error();
  if (!*found) return {};
  const Rest& rest = **found;
  const Record& record = rest.record;
  if (!rest.is_pending) {
    return {Code::needs_attention, 0, "", interruption(record) + "; run 'confsave recover' first"};
  }
  if (record.state == State::pending) return refuse_pending(record.snapshot);
  return {Code::pending, 0, "",
          "the restore of " + quoted(record.snapshot.config.name) + " waits for its check"};
}

Result<Recovery> recover(const ChangeOptions& options) {
  return at_boundary([&] { return lock_and_recover(options); });
}

Result<std::optional<Unfinished>> unfinished(const ReadOptions& options) {
  return at_boundary([&] { return find_unfinished(Deadline(options.wait)); });
}

}  // namespace ConfSave::snapshots
