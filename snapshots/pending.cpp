// pending, confirm, revert: a restore that is taken back unless somebody keeps it.

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "snapshots/arguments.h"
#include "snapshots/audit.h"
#include "snapshots/boot.h"
#include "snapshots/boundary.h"
#include "snapshots/check_owner.h"
#include "snapshots/dated_name.h"
#include "snapshots/lock.h"
#include "snapshots/recover.h"
#include "snapshots/restore_end.h"
#include "snapshots/sentence.h"
#include "snapshots/waiter.h"

namespace ConfSave::snapshots {
namespace {

using std::chrono::milliseconds;

/// Whoever waits notices so soon that the restore was confirmed.
constexpr milliseconds kLongestSleep{5000};
constexpr milliseconds kFirstPause{250};
constexpr milliseconds kLongestPause{5000};
constexpr milliseconds kLongestMiss{3600'000};
/// How long a confirmation waits for the storage.
constexpr milliseconds kLongestStamp{2000};

const char* words_for(Ending ending) {
  switch (ending) {
    case Ending::confirmed:
      return "was confirmed";
    case Ending::expired:
      return "was not confirmed in time, and was taken back";
    case Ending::restarted:
      return "was not confirmed before a restart, and was taken back";
    default:
      return "was taken back";
  }
}

/// Code::not_pending, with what became of the last one.
Error not_pending(const Deadline& deadline) {
  Error error{Code::not_pending, 0, "", "no restore is pending"};
  Result<std::optional<Journal>> journal = Journal::open(deadline.left());
  if (!journal || !*journal) return error;
  const Result<std::optional<Ended>> last = (*journal)->last_ended();
  if (!last || !*last) return error;
  error.text += "; that of " + quoted((*last)->name) + " " + words_for((*last)->ending) + " at " +
                local_time((*last)->time);
  return error;
}

Result<std::optional<Pending>> find_pending(const Deadline& deadline) {
  const Result<std::optional<Record>> found = read_record(deadline);
  if (!found) return found.error();
  if (!*found) return std::optional<Pending>();
  const Record& record = **found;
  Pending pending;
  pending.name = record.snapshot.config.name;
  pending.version = record.snapshot.config.vers;
  pending.author = record.author;
  pending.is_checked = record.state == State::checking && CheckOwner::is_alive();
  if (pending.is_checked) return std::optional<Pending>(std::move(pending));
  if (record.state != State::pending) return std::optional<Pending>();
  const Result<int64> left = left_of(record.window);
  if (!left) return left.error();
  pending.seconds_left = in_seconds(*left);
  pending.deadline = end_of(record.window);
  return std::optional<Pending>(std::move(pending));
}

Error too_late(const Record& record) {
  const std::string name = quoted(record.snapshot.config.name);
  return {Code::not_pending, 0, "",
          is_of_another_boot(record.window)
              ? "the restore of " + name + " " + words_for(Ending::restarted)
              : "the time of the restore of " + name + " was up, and it was taken back"};
}

/// The record that waits; Code::not_pending if none does, after what else is left was recovered.
Result<Record> take_pending(const Deadline& deadline) {
  Result<std::optional<Record>> found = read_record(deadline);
  if (!found) return found.error();
  bool is_due = false;
  if (*found && (*found)->state == State::pending) {
    const Result<int64> left = left_of((*found)->window);
    if (!left) return left.error();
    if (*left > 0) return std::move(**found);
    is_due = true;
  }
  if (*found) {
    Error unfinished;
    const Result<Recovery> recovery = recover_under_lock(deadline, unfinished, Demand::when_due);
    if (!recovery) return recovery.error();
  }
  return is_due ? too_late(**found) : not_pending(deadline);
}

/// The release before may have left one half undone.
Error finish_undo(const Deadline& deadline, const Record& record) {
  Error unfinished;
  const Result<Recovery> recovery = recover_under_lock(deadline, unfinished, Demand::now);
  if (!recovery) return recovery.error();
  return {Code::not_pending, 0, "",
          "the restore of " + quoted(record.snapshot.config.name) + " had failed, and was taken back"};
}

Result<Confirmed> confirm_under_lock(const Deadline& deadline, Record& record) {
  Result<Record> taken = take_pending(deadline);
  if (!taken) return taken.error();
  record = std::move(*taken);
  Result<std::vector<Site>> sites = open_sites(record.roots, Need::nothing);
  if (!sites) return sites.error();
  const Result<bool> is_undone = Exchange(*sites, record.steps).has_undone_step();
  if (!is_undone) return is_undone.error();
  if (*is_undone) return finish_undo(deadline, record);
  std::optional<ExclusiveStorage> storage;
  // The load time can wait for a later call; the window closes.
  const Deadline soon(std::min(deadline.left(), kLongestStamp));
  Result<ExclusiveStorage> opened = ExclusiveStorage::open(soon);
  if (opened) storage.emplace(std::move(*opened));
  Result<Journal> journal = Journal::open_to_write(deadline.left());
  if (!journal) return journal.error();
  Confirmed confirmed{record.snapshot.config.name, record.snapshot.config.vers, {}};
  Error error = confirm_record(*journal, record, *sites, storage, confirmed.warnings);
  if (error.code != Code::ok) return error;
  warn_of_other_directories(record.roots, *sites, confirmed.warnings);
  return confirmed;
}

Result<Confirmed> lock_and_confirm(const ChangeOptions& options) {
  const Deadline deadline(options.wait);
  const Result<Lock> lock = Lock::take("a confirmation", deadline);
  if (!lock) return lock.error();
  Record record;
  Result<Confirmed> confirmed = confirm_under_lock(deadline, record);
  if (confirmed) {
    audit("confirm", record.snapshot, "ok", {{"loaded-by", record.author}});
  } else {
    audit("confirm", Id{record.snapshot.config.name, record.snapshot.config.vers}, confirmed.error());
  }
  return confirmed;
}

Result<Recovery> revert_under_lock(When when, const Deadline& deadline, Error* logged) {
  Error unfinished;
  const bool is_asked = when == When::now;
  Result<Recovery> recovery =
      recover_under_lock(deadline, unfinished, is_asked ? Demand::now : Demand::when_due, logged);
  if (!is_asked && !recovery && recovery.error().code == Code::pending) return Recovery{};
  const bool was_undone = recovery && (recovery->outcome == Recovery::Outcome::reverted ||
                                       recovery->outcome == Recovery::Outcome::undone);
  return is_asked && recovery && !was_undone ? not_pending(deadline) : recovery;
}

Result<Recovery> lock_and_revert(When when, milliseconds wait, Error* logged = nullptr) {
  const Deadline deadline(wait);
  const Result<Lock> lock = Lock::take("taking a restore back", deadline);
  if (!lock) return lock.error();
  return revert_under_lock(when, deadline, logged);
}

/// By the clock that the deadline is of: time asleep counts.
void sleep_for(milliseconds time) {
  const int64 end = since_boot() + time.count();
  const timespec at = {static_cast<std::time_t>(end / 1000), static_cast<long>(end % 1000) * 1'000'000};
  while (clock_nanosleep(CLOCK_BOOTTIME, TIMER_ABSTIME, &at, nullptr) == EINTR) {
  }
}

/// How long a restore needs nobody, or nothing if it is due or its process has died.
milliseconds rest_of(const Record& record) {
  if (record.state == State::pending) {
    const Result<int64> left = left_of(record.window);
    return left ? std::min(milliseconds(*left), kLongestSleep) : milliseconds(0);
  }
  const bool is_at_work = record.state == State::checking ? CheckOwner::is_alive() : Lock::is_taken();
  return is_at_work ? kFirstPause : milliseconds(0);
}

/// Waits for one restore, whatever becomes of it.
class Waiter {
 public:
  explicit Waiter(milliseconds wait) : wait_(wait), last_(since_boot() + kLongestMiss.count()) {}

  Result<Recovery> run() {
    for (;;) {
      bool has_ended = false;
      const std::optional<Record> record = look(has_ended);
      if (has_ended) return Recovery{};
      if (record) {
        if (const milliseconds rest = rest_of(*record); rest.count() > 0) {
          sleep_for(rest);
          continue;
        }
        Result<Recovery> recovery = lock_and_revert(When::if_due, wait_, &logged_);
        if (recovery && recovery->outcome != Recovery::Outcome::nothing) return recovery;
        if (!recovery) log_delay(*record, recovery.error());
      }
      sleep_for(pause_);
      pause_ = std::min(pause_ * 2, kLongestPause);
    }
  }

 private:
  /// No value if the record cannot be read now.
  std::optional<Record> look(bool& has_ended) {
    Result<std::optional<Journal>> journal = Journal::open(wait_);
    if (!journal) return std::nullopt;
    if (!*journal) {
      // The file system of a journal that is missing may come back.
      has_ended = staging_.empty() || since_boot() > last_;
      return std::nullopt;
    }
    Result<std::optional<Record>> record = (*journal)->read();
    if (!record) return std::nullopt;
    has_ended = !*record || (*record)->roots.empty() || !is_mine(**record);
    return std::move(*record);
  }

  /// No other restore stages in a directory of this name.
  bool is_mine(const Record& record) {
    last_ = std::max(record.window.deadline, since_boot()) + kLongestMiss.count();
    if (staging_.empty()) {
      staging_ = record.roots.front().staging;
      say_ready();
    }
    return staging_ == record.roots.front().staging;
  }

  /// Once: a lock may be held for long.
  void log_delay(const Record& record, const Error& error) {
    if (error.code != Code::busy || is_delay_logged_) return;
    is_delay_logged_ = true;
    audit_delay("revert", record.snapshot, error);
  }

  milliseconds wait_;
  int64 last_;  ///< since the boot: for so long a journal may be missing
  std::string staging_;
  milliseconds pause_ = kFirstPause;
  bool is_delay_logged_ = false;
  Error logged_;
};

}  // namespace

Result<std::optional<Pending>> pending(const ReadOptions& options) {
  return at_boundary([&] { return find_pending(Deadline(options.wait)); });
}

Result<Confirmed> confirm(const ChangeOptions& options) {
  return at_boundary([&] { return lock_and_confirm(options); });
}

Result<Recovery> revert(When when, const ChangeOptions& options) {
  return at_boundary([&]() -> Result<Recovery> {
    if (Error error = check_when(when); error.code != Code::ok) return error;
    return when == When::when_due ? Waiter(options.wait).run() : lock_and_revert(when, options.wait);
  });
}

}  // namespace ConfSave::snapshots
