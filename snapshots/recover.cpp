// recover: finishes or undoes what an interrupted restore has left.

#include "snapshots/recover.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "places.h"
#include "snapshots/archive_path.h"
#include "snapshots/boundary.h"
#include "snapshots/exclusive_storage.h"
#include "snapshots/lock.h"
#include "snapshots/system_error.h"

namespace ConfSave::snapshots {
namespace {

std::string owner_file() { return state_directory() + "/restore.lock"; }

std::string quoted(const Snapshot& snapshot) { return "'" + printable(snapshot.config.name) + "'"; }

/// Unlike flock(2), this lock can be asked for without being taken.
struct flock whole_file() {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

Error is_pending(const Snapshot& snapshot) {
  return {Code::pending, 0, "", "the restore of " + quoted(snapshot) + " waits for its check"};
}

/// What was there before stays there: it may be somebody's work.
void warn_of(const std::vector<std::string>& left, std::vector<std::string>& warnings) {
  for (const std::string& path : left) {
    warnings.push_back(path +
                       ": this file is not as the restore has left it; it stays, delete it when it is "
                       "not needed");
  }
}

bool is_below(const std::string& path, const std::string& directory) {
  return path.compare(0, directory.size() + 1, directory + "/") == 0;
}

class Recovering {
 public:
  Recovering(Journal& journal, const Record& record, const Deadline& deadline)
      : journal_(journal), record_(record), deadline_(deadline) {
    recovery_.name = record.snapshot.config.name;
    recovery_.version = record.snapshot.config.vers;
  }

  /// What could not be finished is a warning for a person, and in `unfinished` for who goes on.
  Result<Recovery> run(Error& unfinished) {
    bool puts_back = record_.state == State::prepared || record_.state == State::pending;
    Result<std::vector<Site>> sites = open_sites(record_.roots, !puts_back);
    if (!sites) return sites.error();
    Exchange exchange(*sites, record_.steps);
    // A restore that failed to record its end was undone, and may have failed to record that.
    puts_back = puts_back || (record_.state == State::exchanged && exchange.has_undone_step());
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
    const Result<ExclusiveStorage> storage = ExclusiveStorage::open(deadline_);
    // The files can be put back without the storage.
    if (!storage && storage.error().code == Code::busy) return storage.error();
    const Foreign foreign = record_.state == State::pending ? Foreign::set_aside : Foreign::leave;
    Error error = take_back(journal_, record_, sites, foreign, recovery_.warnings, unfinished);
    if (error.code != Code::ok) return error;
    recovery_.outcome = Recovery::Outcome::undone;
    return std::move(recovery_);
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
  const Record& record_;
  const Deadline& deadline_;
  Recovery recovery_;
};

Result<Recovery> recover_under_lock(const Deadline& deadline, Error& unfinished) {
  // Most of the time there is nothing to recover, and nothing is to be made then.
  Result<std::optional<Journal>> found = Journal::open(deadline.left());
  if (!found) return found.error();
  if (!*found) return Recovery{};
  Result<std::optional<Record>> record = (*found)->read();
  if (!record) return record.error();
  if (!*record) return Recovery{};
  found->reset();
  std::optional<PendingOwner> owner;
  if ((*record)->state == State::pending) {
    Result<PendingOwner> become = PendingOwner::become((*record)->snapshot);
    if (!become) return become.error();
    owner.emplace(std::move(*become));
  }
  const bool puts_back = (*record)->state == State::prepared || (*record)->state == State::pending;
  Result<Journal> journal = Journal::open_to_write(deadline.left());
  if (!journal) return journal.error();
  Result<Recovery> recovery = Recovering(*journal, **record, deadline).run(unfinished);
  if (recovery || !puts_back) return recovery;
  Error error = recovery.error();
  error.aftermath = Aftermath::mixed;
  return error;
}

Result<Recovery> lock_and_recover(const ChangeOptions& options) {
  const Deadline deadline(options.wait);
  const Result<Lock> lock = Lock::take("a recovery", deadline);
  if (!lock) return lock.error();
  Error unfinished;
  return recover_under_lock(deadline, unfinished);
}

Result<std::optional<Unfinished>> find_unfinished(const Deadline& deadline) {
  Result<std::optional<Journal>> journal = Journal::open(deadline.left());
  if (!journal) return journal.error();
  if (!*journal) return std::optional<Unfinished>();
  const Result<std::optional<Record>> record = (*journal)->read();
  if (!record) return record.error();
  if (!*record) return std::optional<Unfinished>();
  const Snapshot& snapshot = (*record)->snapshot;
  Unfinished unfinished{snapshot.config.name, snapshot.config.vers, false};
  if ((*record)->state == State::pending) {
    unfinished.is_pending = PendingOwner::is_alive();
  } else if (Lock::is_taken()) {
    // Its process is at work.
    return std::optional<Unfinished>();
  }
  return std::optional<Unfinished>(std::move(unfinished));
}

}  // namespace

Result<PendingOwner> PendingOwner::become(const Snapshot& snapshot) {
  const std::string path = owner_file();
  Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file) return system_error(path);
  struct flock lock = whole_file();
  if (fcntl(file.get(), F_OFD_SETLK, &lock) != 0) {
    if (errno == EAGAIN || errno == EACCES) return is_pending(snapshot);
    return system_error(path);
  }
  return PendingOwner(std::move(file));
}

PendingOwner::~PendingOwner() {
  if (!file_) return;
  struct flock lock = whole_file();
  lock.l_type = F_UNLCK;
  fcntl(file_.get(), F_OFD_SETLK, &lock);
}

bool PendingOwner::is_alive() {
  const Descriptor file(open(owner_file().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct flock lock = whole_file();
  return file && fcntl(file.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

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
    if (first.code == Code::ok) {
      first = std::move(error);
    } else {
      others += others.empty() ? "; not put back either: " : ", ";
      others += error.path;
    }
  }
  if (first.code == Code::ok) first = exchange.sync();
  if (first.code == Code::ok) first = journal.set_state(State::undone);
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

Error recover_first(const Deadline& deadline) {
  Error unfinished;
  const Result<Recovery> recovery = recover_under_lock(deadline, unfinished);
  return recovery ? Error{} : recovery.error();
}

Error recover_wholly(const Deadline& deadline) {
  Error unfinished;
  const Result<Recovery> recovery = recover_under_lock(deadline, unfinished);
  return recovery ? unfinished : recovery.error();
}

Error check_finished(const Deadline& deadline) {
  const Result<std::optional<Unfinished>> found = find_unfinished(deadline);
  if (!found) return found.error();
  if (!*found) return {};
  const std::string name = "'" + printable((*found)->name) + "'";
  if ((*found)->is_pending)
    return {Code::pending, 0, "", "the restore of " + name + " waits for its check"};
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
