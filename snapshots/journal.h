#pragma once

#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "snapshots/database.h"
#include "snapshots/identity.h"

namespace ConfSave::snapshots {

struct Attributes {
  std::uint32_t mode = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
};

constexpr int64 kNoTime = std::numeric_limits<int64>::min();

/// One inode that a restore moves, or one directory whose attributes it sets.
struct Step {
  enum class What {
    put,         ///< the staged file or empty directory takes its place
    remove,      ///< what is there goes
    attributes,  ///< of a directory
  };

  What what = What::put;
  std::size_t root = 0;
  std::string path;  ///< relative to the root
  Identity before;   ///< what was there
  Identity after;    ///< what was staged
  Attributes old;  ///< of what was there; of a directory that the restore makes, those that it is made with
  Attributes fresh;        ///< of `attributes`
  std::string old_access;  ///< the access list of that directory, as the kernel has it; may be empty
  int64 time = kNoTime;    ///< of a directory that the restore makes, in seconds since the epoch
};

/// A destination, as the journal records it.
struct Root {
  std::string path;  ///< ends in "/"
  std::uint64_t inode = 0;
  std::string staging;  ///< name of the staging directory in it
};

/// How far a restore is, from which recovery knows what to do.
enum class State {
  staging,    ///< no live file has changed: delete the staging directories
  prepared,   ///< live files may have changed: put back the old ones
  exchanged,  ///< the point of no return is passed: delete the old files
  checking,   ///< all live files are new, and a check decides
  undone,     ///< all live files are the old ones: delete the staged ones
  pending,    ///< all live files are new until the window closes, unless somebody confirms them
  reverting,  ///< as prepared, but what is there now may be somebody's work
};

/// How a restore with a window ended.
enum class Ending { none, confirmed, reverted, expired, restarted };

/// How long a restore waits for its confirmation.
struct Window {
  std::string boot;    ///< the boot of the machine that it counts in
  int64 deadline = 0;  ///< milliseconds since that boot; 0 without a window

  bool exists() const { return deadline != 0; }
};

/// The last restore with a window.
struct Ended {
  std::string name;
  Ending ending = Ending::none;
  int64 time = 0;
};

/// A restore that is not finished.
struct Record {
  State state = State::staging;
  Snapshot snapshot;    ///< without notes
  int64 load_time = 0;  ///< what the row gets; 0 for a restore that stamps none
  std::string author;   ///< who restores
  Window window;
  Ending ending = Ending::none;
  std::vector<Root> roots;
  std::vector<Step> steps;  ///< in the order of execution
};

/// "restore.db" in the state directory: what a restore is about to do, has done, or has to undo. An SQLite
/// file of our own, mode 0600, that has rows only while a restore is not finished. Everything is durable on
/// return.
class Journal {
 public:
  /// No value if there is no file. Code::needs_attention if it cannot be understood.
  static Result<std::optional<Journal>> open(std::chrono::milliseconds wait);

  /// Makes the file unless it exists.
  static Result<Journal> open_to_write(std::chrono::milliseconds wait);

  /// The restore that is not finished, if there is one.
  Result<std::optional<Record>> read();

  /// Code::not_pending if the record is gone, or that of another restore.
  Error check_is_of(const Record& record);

  /// Begins a record, without steps.
  Error begin(const Record& record);

  /// The steps, the load time and the window of a record, and State::prepared.
  Error prepare(const Record& record);

  Error set_state(State state, Ending ending = Ending::none);

  /// State::pending, until this window closes.
  Error set_pending(const Window& window);

  /// What the restore has put there is another file now: the identities after these steps, by number.
  Error replace_after(const std::map<std::size_t, Identity>& identities);

  /// Nothing is left to do. How a restore with a window ended is kept until the next such one.
  Error clear();

  /// No value if no restore with a window has ended.
  Result<std::optional<Ended>> last_ended();

 private:
  explicit Journal(Database database) : database_(std::move(database)) {}

  Error in_transaction(const std::function<Error()>& change);
  /// The same after live files have changed: a reader of the journal must not undo a good restore.
  Error decide(const std::function<Error()>& change);
  Error make_tables();
  Result<std::optional<Record>> read_rows();
  Result<Record> read_restore(const Statement& row);
  Error read_roots(Record& record);
  Error read_steps(Record& record);
  Error write_step(Statement& statement, const Step& step);
  /// The error of the last call that failed.
  Error failure() const { return explained(database_.error()); }
  /// An error of the database, with what it means for the journal.
  static Error explained(const Error& error);

  Database database_;
};

}  // namespace ConfSave::snapshots
