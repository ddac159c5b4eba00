// restore: puts a snapshot in the place of the live files, all or nothing.

#include <ctime>
#include <optional>

#include "snapshots/arguments.h"
#include "snapshots/audit.h"
#include "snapshots/author.h"
#include "snapshots/blocked_signals.h"
#include "snapshots/boot.h"
#include "snapshots/boundary.h"
#include "snapshots/check_owner.h"
#include "snapshots/keep.h"
#include "snapshots/lock.h"
#include "snapshots/phases.h"
#include "snapshots/plan.h"
#include "snapshots/preflight.h"
#include "snapshots/recover.h"
#include "snapshots/restore_end.h"
#include "snapshots/sentence.h"
#include "snapshots/stage.h"
#include "snapshots/summary.h"
#include "snapshots/text.h"
#include "snapshots/waiter.h"

namespace ConfSave::snapshots {
namespace {

constexpr std::size_t kRoom = 8 << 20;  ///< for decoded files: more are decoded twice

class Restoring {
 public:
  Restoring(const Id& id, const RestoreOptions& options)
      : id_(id), options_(options), deadline_(options.wait) {}

  Result<Restored> run() {
    Error error = take_lock();
    phases_.end("lock");
    if (error.code == Code::ok) error = recover_wholly(deadline_);
    phases_.end("recover");
    if (error.code == Code::ok) error = make_plan();
    phases_.end("plan");
    if (error.code != Code::ok) return error;
    if (plan_.steps.empty()) return stay();
    error = prepare();
    if (error.code == Code::ok) error = exchange();
    if (error.code != Code::ok) return error;
    row_.reset();
    if (keeps()) remove_old_kept(record_.snapshot, restored_.kept, deadline_, restored_.warnings);
    keep_summary();
    phases_.end("remove old kept");
    if (!is_windowed()) return finish(Restored::Outcome::restored);
    restored_.deadline = end_of(record_.window);
    return finish(Restored::Outcome::pending);
  }

 private:
  Error take_lock() {
    Result<Lock> lock = Lock::take("restoring " + printable(id_.name), deadline_);
    if (!lock) return lock.error();
    lock_.emplace(std::move(*lock));
    return {};
  }

  bool is_windowed() const { return options_.confirm_within.count() != 0; }
  bool keeps() const { return options_.keep && options_.target.empty(); }

  Result<Restored> stay() {
    Error error = sync_destinations(plan_.directories);
    phases_.end("sync");
    return error.code == Code::ok ? finish(Restored::Outcome::unchanged) : Result<Restored>(error);
  }

  Result<Restored> finish(Restored::Outcome outcome) {
    restored_.outcome = outcome;
    restored_.plan = std::move(plan_.shown);
    return std::move(restored_);
  }

  void report(Progress::Phase phase) const {
    if (options_.progress) options_.progress({phase, 0, 0});
  }

  Error make_plan() {
    Result<OpenRow> row = open_row(id_, deadline_);
    if (!row) return row.error();
    row_.emplace(std::move(*row));
    Result<DetailedPlan> plan = snapshots::make_plan(*row_, options_, deadline_, kRoom);
    if (!plan) return plan.error();
    plan_ = std::move(*plan);
    restored_.warnings = plan_.warnings;
    if (!options_.expected || is_same_plan(*options_.expected, plan_.shown)) return {};
    return {Code::changed_meanwhile, 0, "", "the files or the snapshot changed since the plan was made"};
  }

  // ---- These functions change no live file.

  Error prepare() {
    Result<Record> record = begin_record(plan_);
    if (!record) return record.error();
    record_ = std::move(*record);
    Result<std::vector<Site>> sites = open_sites(record_.roots, Need::destinations);
    if (!sites) return sites.error();
    sites_ = std::move(*sites);
    if (Error error = check_sites(sites_, plan_); error.code != Code::ok) return error;
    Result<Journal> journal = Journal::open_to_write(deadline_.left());
    if (!journal) return journal.error();
    journal_.emplace(std::move(*journal));
    record_.author = author();
    if (Error error = journal_->begin(record_); error.code != Code::ok) return error;
    phases_.end("journal");
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
    report(Progress::Phase::staging);
    Error error = stage(*row_, plan_, sites_, options_);
    plan_.decoded.clear();
    phases_.end("stage");
    // A transaction that reads the storage would keep out those that write.
    row_.reset();
    if (error.code == Code::ok) error = sync_destinations(plan_.directories, sites_);
    phases_.end("sync");
    if (error.code == Code::ok) error = keep();
    phases_.end("keep");
    // The waiter must run before live files change. Its start may take seconds: the storage is locked
    // later.
    if (error.code == Code::ok && is_windowed()) error = open_window();
    report(Progress::Phase::exchange);
    if (error.code == Code::ok) error = lock_storage();
    phases_.end("lock the storage");
    if (error.code == Code::ok) error = check_live_files(plan_, sites_);
    if (error.code == Code::ok) error = write_steps();
    phases_.end("prepared");
    return error;
  }

  Error keep() {
    if (!keeps()) return {};
    report(Progress::Phase::keeping);
    Result<Kept> kept = keep_configuration(record_.snapshot, deadline_, restored_.warnings);
    if (!kept) return kept.error();
    restored_.kept = kept->name;
    kept_ = std::move(*kept);
    return check_kept(kept_, plan_);
  }

  /// Nobody packs the files from here on until the exchange is done.
  Error lock_storage() {
    // What was kept took its time, and another attempt would take it again.
    const Deadline deadline(restored_.kept.empty() ? deadline_.left() : deadline_.left_afterwards());
    Result<ExclusiveStorage> storage = ExclusiveStorage::open(deadline);
    if (!storage) return storage.error();
    storage_.emplace(std::move(*storage));
    if (!options_.target.empty()) return {};
    record_.load_time = std::time(nullptr);
    return options_.check || is_windowed() ? Error{} : storage_->stamp(record_.snapshot, record_.load_time);
  }

  Error write_steps() {
    for (const PlannedStep& planned : plan_.steps) record_.steps.push_back(planned.step);
    return journal_->prepare(record_);
  }

  Error open_window() {
    if (Error error = check_absolute(record_); error.code != Code::ok) return error;
    Result<Window> window = snapshots::open_window(options_.confirm_within);
    if (!window) return window.error();
    record_.window = std::move(*window);
    return start_waiter(options_.program, record_.window);
  }

  /// The whole window begins when the files are there, and the check was good.
  Error begin_waiting() {
    Result<Window> window = snapshots::open_window(options_.confirm_within);
    if (window) record_.window = std::move(*window);
    Error error = journal_->set_pending(record_.window);
    if (error.code == Code::ok) storage_.reset();
    return error;
  }

  /// A restore that fails again and again would fill the storage with them. Older ones stay.
  void take_back_kept() {
    storage_.reset();
    snapshots::take_back_kept(kept_, deadline_);
  }

  /// What fails here is done by the next recovery.
  void abandon() {
    row_.reset();
    storage_.reset();
    take_back_kept();
    // "prepared" may be durable although writing it failed: a recovery needs the staging directories then.
    if (!record_.steps.empty() && journal_->set_state(State::staging).code != Code::ok) return;
    const std::vector<Step> none;
    Exchange exchange(sites_, none);
    static_cast<void>(clean_up(*journal_, exchange, restored_.warnings));
  }

  // ---- These functions change live files.

  Error exchange() {
    Exchange exchange(sites_, record_.steps);
    if (Error error = exchange_or_undo(exchange); error.code != Code::ok) return error;
    phases_.end("exchanged");
    if (options_.check) return check();
    if (is_windowed()) return {};
    const Error stamped = storage_->commit();
    finish_storage(*journal_, exchange, storage_, stamped, restored_.warnings);
    phases_.end("commit and clean up");
    return {};
  }

  Error exchange_or_undo(Exchange& exchange) {
    const BlockedSignals blocked;  // The end of the process would leave a mixture until a recovery.
    Error error;
    try {
      error = exchange.apply_all();
    } catch (...) {
      static_cast<void>(undo({}, Foreign::leave));
      throw;
    }
    phases_.end("exchange");
    if (error.code != Code::ok) return undo(std::move(error), Foreign::leave);
    error = write_exchanged();
    return error.code == Code::ok ? error : undo_decided(std::move(error), Foreign::leave);
  }

  /// A check decides later.
  Error write_exchanged() {
    if (!options_.check) return is_windowed() ? begin_waiting() : journal_->set_state(State::exchanged);
    Result<CheckOwner> owner = CheckOwner::become(record_.snapshot);
    if (!owner) return owner.error();
    check_owner_.emplace(std::move(*owner));
    return journal_->set_state(State::checking);
  }

  Error write_undo(Foreign foreign) {
    return journal_->set_state(foreign == Foreign::leave ? State::prepared : State::reverting);
  }

  /// After a write failed that lets the new files stay. It may be durable all the same: no file moves then
  /// unless the journal says that it does, or a recovery would keep what is half undone.
  Error undo_decided(Error why, Foreign foreign) {
    const Error error = why.code == Code::busy ? Error{} : write_undo(foreign);
    if (error.code == Code::ok) return undo(std::move(why), foreign);
    return none_put_back(std::move(why), error, record_.steps, sites_);
  }

  Error undo(Error why, Foreign foreign) {
    std::vector<std::string> warnings;
    Error refused;
    if (foreign == Foreign::set_aside) {
      refused = store_edits(*journal_, record_, sites_, storage_, deadline_, warnings);
      if (refused.code == Code::ok) refused = write_undo(foreign);
    }
    Error unfinished;
    Error error = refused;
    if (error.code == Code::ok)
      error = take_back(*journal_, record_, sites_, foreign, warnings, unfinished);
    if (error.code == Code::ok) take_back_kept();
    for (const std::string& warning : warnings) why.text += "; " + warning;
    if (refused.code != Code::ok) return none_put_back(std::move(why), refused, record_.steps, sites_);
    why.aftermath = error.code == Code::ok ? Aftermath::put_back : Aftermath::mixed;
    if (error.code != Code::ok) why.text += "; not put back: " + sentence(error);
    return why;
  }

  // ---- With a check, a person or a program decides.

  Error check() {
    // The check may do what it likes, except another restore.
    journal_.reset();
    storage_.reset();
    lock_.reset();
    const bool is_good = run_check();
    deadline_ = Deadline(options_.wait);  // The check may have set it.
    Error failure = come_back(is_good);
    if (failure.code == Code::ok && !is_good) failure = check_way_back(sites_, record_.steps);
    if (failure.code != Code::ok) return left_live(std::move(failure), is_good);
    if (!is_good) return undo({Code::check_failed, 0, "", "the check failed"}, Foreign::set_aside);
    Error error = is_windowed() ? begin_waiting()
                                : confirm_record(*journal_, record_, sites_, storage_, restored_.warnings);
    storage_.reset();
    return error.code == Code::ok ? error : undo_decided(std::move(error), Foreign::set_aside);
  }

  bool run_check() const {
    try {
      return options_.check();
    } catch (...) {
      return false;
    }
  }

  Error come_back(bool is_good) {
    if (Error error = take_lock(); error.code != Code::ok) return error;
    Result<Journal> journal = Journal::open_to_write(deadline_.left_afterwards());
    if (!journal) return journal.error();
    journal_.emplace(std::move(*journal));
    if (Error error = journal_->check_is_of(record_); error.code != Code::ok) return error;
    // The check may have moved directories.
    for (Site& site : sites_) site.beneath.forget();
    const std::vector<Step> none;
    if (Error error = Exchange(sites_, none).check_directories(); error.code != Code::ok) return error;
    Result<ExclusiveStorage> storage = ExclusiveStorage::open(deadline_);
    if (storage) storage_.emplace(std::move(*storage));
    // Only the load time of a good one needs it.
    return storage || is_good || storage.error().code != Code::busy ? Error{} : storage.error();
  }

  const Id& id_;
  const RestoreOptions& options_;
  Deadline deadline_;
  Phases phases_{"restore"};
  std::optional<Lock> lock_;
  std::optional<OpenRow> row_;
  DetailedPlan plan_;
  Record record_;
  std::vector<Site> sites_;
  std::optional<Journal> journal_;
  std::optional<ExclusiveStorage> storage_;
  std::optional<CheckOwner> check_owner_;
  Restored restored_;
  Kept kept_;
};

Result<Restored> restore_and_log(const Id& id, const RestoreOptions& options) {
  if (Error error = check_window(options); error.code != Code::ok) return error;
  Result<Restored> restored = Restoring(id, options).run();
  audit_restore(id, restored, options.target);
  return restored;
}

}  // namespace

Result<Restored> restore(const Id& id, const RestoreOptions& options) {
  return at_boundary([&] { return restore_and_log(id, options); });
}

}  // namespace ConfSave::snapshots
