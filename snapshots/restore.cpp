// restore: puts a snapshot in the place of the live files, all or nothing.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <optional>

#include "places.h"
#include "snapshots/archive_path.h"
#include "snapshots/boundary.h"
#include "snapshots/exclusive_storage.h"
#include "snapshots/keep.h"
#include "snapshots/lock.h"
#include "snapshots/plan.h"
#include "snapshots/preflight.h"
#include "snapshots/recover.h"
#include "snapshots/stage.h"

namespace ConfSave::snapshots {
namespace {

Error with_aftermath(Error error, Aftermath aftermath) {
  error.aftermath = aftermath;
  return error;
}

bool is_same(const PlannedChange& a, const PlannedChange& b) {
  const Difference& x = a.difference;
  const Difference& y = b.difference;
  return a.action == b.action && x.path == y.path && x.content == y.content && x.mode == y.mode &&
         x.owner == y.owner && x.group == y.group && x.time == y.time;
}

/// Whether both do the same to the same files.
bool is_same_plan(const Plan& a, const Plan& b) {
  return a.snapshot.id == b.snapshot.id && a.snapshot.config.save_time == b.snapshot.config.save_time &&
         a.snapshot.keybase_size == b.snapshot.keybase_size && a.snapshot.etc_size == b.snapshot.etc_size &&
         a.present == b.present && a.extra == b.extra &&
         std::equal(a.changes.begin(), a.changes.end(), b.changes.begin(), b.changes.end(),
                    static_cast<bool (*)(const PlannedChange&, const PlannedChange&)>(is_same));
}

class Restoring {
 public:
  Restoring(const Id& id, const RestoreOptions& options)
      : id_(id), options_(options), deadline_(options.wait) {}

  Result<Restored> run() {
    Error error = take_lock();
    if (error.code == Code::ok) error = recover_wholly(deadline_);
    if (error.code == Code::ok) error = make_plan();
    if (error.code != Code::ok) return error;
    error = sync_equal_files();
    if (error.code != Code::ok) return error;
    if (plan_.steps.empty()) return finish(Restored::Outcome::unchanged);
    error = prepare();
    if (error.code != Code::ok) return error;
    error = exchange();
    if (error.code != Code::ok) return error;
    row_.reset();
    remove_old_kept(record_.snapshot, restored_.kept, deadline_, restored_.warnings);
    return finish(Restored::Outcome::restored);
  }

 private:
  Error take_lock() {
    Result<Lock> lock = Lock::take("restoring " + printable(id_.name), deadline_);
    if (!lock) return lock.error();
    lock_.emplace(std::move(*lock));
    return {};
  }

  Result<Restored> finish(Restored::Outcome outcome) {
    restored_.outcome = outcome;
    restored_.plan = std::move(plan_.shown);
    return std::move(restored_);
  }

  void report(Progress::Phase phase) const {
    Progress progress;
    progress.phase = phase;
    if (options_.progress) options_.progress(progress);
  }

  Error make_plan() {
    Result<OpenRow> row = open_row(id_, deadline_);
    if (!row) return row.error();
    row_.emplace(std::move(*row));
    Result<DetailedPlan> plan = snapshots::make_plan(*row_, options_, deadline_);
    if (!plan) return plan.error();
    plan_ = std::move(*plan);
    restored_.warnings = plan_.warnings;
    if (!options_.expected || is_same_plan(*options_.expected, plan_.shown)) return {};
    return {Code::changed_meanwhile, 0, "", "the files or the snapshot changed since the plan was made"};
  }

  /// Files that equal the snapshot are part of what lasts, and who wrote them may not have synced them.
  Error sync_equal_files() const {
    for (const std::string& path : plan_.directories) {
      const Result<Beneath> directory = Beneath::open(path);
      if (!directory && directory.error().number == ENOENT) continue;
      if (!directory) return directory.error();
      if (syncfs(directory->root()) != 0) return directory->failure("", errno);
    }
    return {};
  }

  // ---- Up to here, and in what follows, no live file changes.

  Error prepare() {
    Result<Record> record = begin_record(plan_);
    if (!record) return record.error();
    record_ = std::move(*record);
    Result<std::vector<Site>> sites = open_sites(record_.roots);
    if (!sites) return sites.error();
    sites_ = std::move(*sites);
    if (Error error = check_sites(sites_, plan_); error.code != Code::ok) return error;
    Result<Journal> journal = Journal::open_to_write(deadline_.left());
    if (!journal) return journal.error();
    journal_.emplace(std::move(*journal));
    if (Error error = journal_->begin(record_); error.code != Code::ok) return error;
    try {
      Error error = stage_and_keep();
      if (error.code != Code::ok) abandon();
      return error;
    } catch (...) {
      // Out of memory, or the host does not want to go on.
      abandon();
      throw;
    }
  }

  Error stage_and_keep() {
    Error error = stage(*row_, plan_, sites_, options_);
    // A transaction that reads the storage would keep out those that write.
    row_.reset();
    if (error.code == Code::ok) error = keep();
    report(Progress::Phase::exchange);
    if (error.code == Code::ok) error = close_storage();
    if (error.code == Code::ok) error = check_live_files();
    return error.code == Code::ok ? write_steps() : error;
  }

  Error keep() {
    if (!options_.keep || !options_.target.empty()) return {};
    report(Progress::Phase::keeping);
    Result<std::string> kept = keep_configuration(record_.snapshot, deadline_, restored_.warnings);
    if (!kept) {
      Error error = kept.error();
      error.text = "the present configuration cannot be kept as a snapshot: " + error.text;
      return error;
    }
    restored_.kept = std::move(*kept);
    return {};
  }

  /// Nobody packs the files from here on until the exchange is done.
  Error close_storage() {
    Result<ExclusiveStorage> storage = ExclusiveStorage::open(deadline_);
    if (!storage) return storage.error();
    storage_.emplace(std::move(*storage));
    if (!options_.target.empty()) return {};
    record_.load_time = std::time(nullptr);
    return options_.check ? Error{} : storage_->stamp(record_.snapshot, record_.load_time);
  }

  Error check_live_files() {
    for (const PlannedStep& planned : plan_.steps) {
      Site& site = sites_[planned.step.root];
      const Result<std::optional<struct stat>> now = site.beneath.look(planned.step.path);
      if (!now) return now.error();
      const bool is_same_file = planned.stamp ? *now && is_same(stamp_of(**now), *planned.stamp) : !*now;
      if (is_same_file || (planned.step.what == Step::What::attributes && !planned.stamp)) continue;
      return {Code::changed_meanwhile, 0, site.beneath.shown(planned.step.path),
              "the file changed while the restore was prepared"};
    }
    return {};
  }

  Error write_steps() {
    for (const PlannedStep& planned : plan_.steps) record_.steps.push_back(planned.step);
    return journal_->prepare(record_.steps, record_.load_time);
  }

  /// What fails here is done by the next recovery.
  void abandon() {
    storage_.reset();
    const std::vector<Step> none;
    Exchange exchange(sites_, none);
    static_cast<void>(clean_up(*journal_, exchange, restored_.warnings));
  }

  // ---- Here they do.

  Error exchange() {
    Exchange exchange(sites_, record_.steps);
    Error error;
    try {
      error = apply_all(exchange);
    } catch (...) {
      static_cast<void>(undo({}, Foreign::leave));
      throw;
    }
    if (error.code == Code::ok && options_.check) return check(exchange);
    if (error.code == Code::ok) error = journal_->set_state(State::exchanged);
    if (error.code != Code::ok) return undo(std::move(error), Foreign::leave);
    finish_storage(storage_->commit(), exchange);
    return {};
  }

  Error apply_all(Exchange& exchange) const {
    for (std::size_t number = 0; number < record_.steps.size(); ++number) {
      if (Error error = exchange.apply(number); error.code != Code::ok) return error;
    }
    Error error = exchange.check_directories();
    return error.code == Code::ok ? exchange.sync() : error;
  }

  /// The restore is done: a load time that is not stored does not undo it. The next recovery stores it,
  /// unless the snapshot is gone.
  void finish_storage(const Error& stamped, Exchange& exchange) {
    storage_.reset();
    if (stamped.code != Code::ok) {
      restored_.warnings.push_back("the load time is not stored: " + stamped.text);
    }
    if (stamped.code == Code::ok || stamped.code == Code::changed_meanwhile) {
      static_cast<void>(clean_up(*journal_, exchange, restored_.warnings));
    }
  }

  Error undo(Error why, Foreign foreign) {
    // A state that could not be written may have been written all the same.
    static_cast<void>(journal_->set_state(foreign == Foreign::leave ? State::prepared : State::pending));
    std::vector<std::string> warnings;
    Error unfinished;
    Error error = take_back(*journal_, record_, sites_, foreign, warnings, unfinished);
    for (const std::string& warning : warnings) why.text += "; " + warning;
    if (error.code == Code::ok) return with_aftermath(std::move(why), Aftermath::put_back);
    why.text += "; not put back: " + error.path + ": " + error.text;
    return with_aftermath(std::move(why), Aftermath::mixed);
  }

  // ---- With a check, a person or a program decides.

  Error check(Exchange& exchange) {
    Result<PendingOwner> owner = PendingOwner::become(record_.snapshot);
    Error error = owner ? journal_->set_state(State::pending) : owner.error();
    if (error.code != Code::ok) return undo(std::move(error), Foreign::leave);
    // The check may do what it likes, except another restore.
    journal_.reset();
    storage_.reset();
    lock_.reset();
    const bool is_good = run_check();
    deadline_ = Deadline(options_.wait);
    if (Error failure = come_back(); failure.code != Code::ok) {
      failure.text += is_good ? "; the restore could not be confirmed" : "; the check failed";
      failure.text += ", and the next command takes it back";
      return with_aftermath(std::move(failure), Aftermath::mixed);
    }
    if (!is_good) {
      return undo({Code::check_failed, 0, "", "the check failed"}, Foreign::set_aside);
    }
    error = confirm(exchange);
    return error.code == Code::ok ? error : undo(std::move(error), Foreign::set_aside);
  }

  bool run_check() const {
    try {
      return options_.check();
    } catch (...) {
      return false;
    }
  }

  Error come_back() {
    // The check may have moved directories.
    for (Site& site : sites_) site.beneath.forget();
    if (Error error = take_lock(); error.code != Code::ok) return error;
    Result<Journal> journal = Journal::open_to_write(deadline_.left());
    if (!journal) return journal.error();
    journal_.emplace(std::move(*journal));
    Result<ExclusiveStorage> storage = ExclusiveStorage::open(deadline_);
    if (storage) storage_.emplace(std::move(*storage));
    return storage || storage.error().code != Code::busy ? Error{} : storage.error();
  }

  Error confirm(Exchange& exchange) {
    Error stamped;
    if (!storage_) {
      stamped = {Code::no_storage, 0, storage_file(), "the storage cannot be opened"};
    } else if (record_.load_time != 0) {
      stamped = storage_->stamp(record_.snapshot, record_.load_time);
    }
    if (Error error = journal_->set_state(State::exchanged); error.code != Code::ok) return error;
    if (stamped.code == Code::ok) stamped = storage_->commit();
    finish_storage(stamped, exchange);
    return {};
  }

  const Id& id_;
  const RestoreOptions& options_;
  Deadline deadline_;
  std::optional<Lock> lock_;
  std::optional<OpenRow> row_;
  DetailedPlan plan_;
  Record record_;
  std::vector<Site> sites_;
  std::optional<Journal> journal_;
  std::optional<ExclusiveStorage> storage_;
  Restored restored_;
};

Result<Plan> plan_restore(const Id& id, const RestoreOptions& options) {
  const Deadline deadline(options.wait);
  if (Error error = check_finished(deadline); error.code != Code::ok) return error;
  Result<OpenRow> row = open_row(id, deadline);
  if (!row) return row.error();
  Result<DetailedPlan> plan = make_plan(*row, options, deadline);
  if (!plan) return plan.error();
  return std::move(plan->shown);
}

}  // namespace

Result<Plan> plan(const Id& id, const RestoreOptions& options) {
  return at_boundary([&] { return plan_restore(id, options); });
}

Result<Restored> restore(const Id& id, const RestoreOptions& options) {
  return at_boundary([&] { return Restoring(id, options).run(); });
}

}  // namespace ConfSave::snapshots
