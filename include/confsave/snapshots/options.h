#pragma once

// What the calls of <confsave/snapshots.h> take: which snapshots, and how.

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "confsave/config.h"
#include "confsave/snapshots/result.h"
#include "confsave/snapshots/values.h"

namespace ConfSave::snapshots {

// ---------------------------------------------------------------------------------------------------
// Snapshots

/// Names exactly one row. Version 0 means the row that was stored without a version.
struct Id {
  std::string name;
  int64 version = CURRENT_VERSION;
};

/// Which rows, in which order.
struct Query {
  enum class Order { id, name, version, saved, loaded };

  std::string pattern = "*";          ///< of the name: * ? [ ] as SQLite's glob has them; to 50,000 bytes
  std::optional<int64> version = {};  ///< exactly this one
  std::optional<int64> up_to = {};    ///< this one or lower
  bool corlu_config = false;          ///< also the packet filter's own row, "corlu-config"
  Order order = Order::id;            ///< then by id
  std::chrono::milliseconds wait{1000};
};

/// Stands for the live configuration in a comparison.
struct Live {};

/// For calls that only read.
struct ReadOptions {
  std::chrono::milliseconds wait{1000};
};

/// Receives the content of a file, piece by piece. An error ends the reading, which returns it.
using Sink = std::function<Error(std::string_view)>;

/// How to save.
struct SaveOptions {
  conftype type = conf_full;
  std::string comment;       ///< at most 4,096 bytes of UTF-8 without control characters
  bool overwrite = false;    ///< replace the snapshot of this name and version
  bool if_changed = false;   ///< store nothing if the newest snapshot of this type equals the configuration
  bool allow_empty = false;  ///< save also if no file of the contents exists
  std::chrono::milliseconds wait{30000};
};

/// For calls that change a note.
struct ChangeOptions {
  std::chrono::milliseconds wait{30000};
};

struct RemoveOptions {
  bool even_pinned = false;  ///< else Code::pinned
  std::chrono::milliseconds wait{30000};
};

// ---------------------------------------------------------------------------------------------------
// Restoring

/// How to restore.
struct RestoreOptions {
  /// A directory that both archives are restored into, instead of the live configuration. It has to exist,
  /// and nobody else may write in it. Nothing is kept and no load time is stamped.
  std::string target;
  bool exact = false;        ///< also remove the files of the contents that the snapshot does not have
  bool keep = true;          ///< first save the present configuration, unless an equal snapshot is stored
  bool allow_newer = false;  ///< else a snapshot of a newer version than the running one is Code::newer
  /// A plan that a person has agreed to. If the restore would do anything else, Code::changed_meanwhile.
  std::optional<Plan> expected = {};
  /// Called when the files are restored, without any lock: it may call every function here but
  /// revert(When::when_due), which would wait for its end. If it returns false or throws, or this process
  /// dies, the restore is taken back; what it throws is lost.
  std::function<bool()> check = {};
  /// The restore is taken back when this time is over, unless confirm() keeps it: kShortestWindow to
  /// kLongestWindow; 0: it needs no confirmation. Not with `target`.
  std::chrono::seconds confirm_within{0};
  /// The program that is started to take it back, with the arguments "revert --when-due"; it has to call
  /// revert(When::when_due). An absolute path; empty: the installed "confsave". restore() waits up to ten
  /// seconds more until it is ready; under systemd, where it may be started twice, up to twenty.
  std::string program = {};
  /// Called now and then, by the calling thread; by plan() too. If it throws, the call ends with an error,
  /// and nothing was changed. A restore holds the lock: a call from here that changes something is busy.
  std::function<void(const Progress&)> progress = {};
  std::chrono::milliseconds wait{30000};
};

constexpr std::chrono::seconds kShortestWindow{10};
constexpr std::chrono::seconds kLongestWindow{24 * 3600};

// ---------------------------------------------------------------------------------------------------
// Pending restores

/// When revert() takes a pending restore back.
enum class When {
  now,
  if_due,    ///< only if its time is up, or the machine was restarted
  when_due,  ///< waits for that, or until it is confirmed or taken back; `wait` is for each attempt
};

// ---------------------------------------------------------------------------------------------------
// Keeping house

/// Which snapshots prune() deletes.
struct PruneOptions {
  int64 keep = 0;                                ///< how many stay, 1 or more: the newest by save time
  std::optional<std::chrono::hours> older_than;  ///< delete only what was saved longer ago than this
  std::optional<std::string> pattern;            ///< of the name, as in Query; default: every autosave
  bool dry_run = false;                          ///< delete nothing
  std::chrono::milliseconds wait{30000};
};

/// How to autosave.
struct AutosaveOptions {
  int64 most = 0;  ///< how many autosaves stay, 1 or more; pinned ones do not count
  conftype type = conf_full;
  bool if_changed = false;  ///< as for save(), unless that snapshot is damaged
  std::chrono::milliseconds wait{30000};
};

// ---------------------------------------------------------------------------------------------------
// Exchanging

using Ids = std::vector<Id>;

/// How to export.
struct ExportOptions {
  bool overwrite = false;  ///< replace a file that exists; else Code::taken
  std::chrono::milliseconds wait{1000};
};

/// How to import.
struct ImportOptions {
  /// Only the one snapshot whose name matches, as in Query; default: all of them.
  std::optional<std::string> pattern;
  std::optional<int64> version;     ///< only of this version; with a pattern
  std::optional<std::string> name;  ///< the new name, of the only snapshot
  bool overwrite = false;           ///< replace snapshots of the same name and version, pinned ones too
  bool allow_newer = false;         ///< else a snapshot of a newer version is Code::newer
  std::chrono::milliseconds wait{30000};
};

/// Gives the next bytes, valid until the next call; empty at the end.
using Supply = std::function<Result<std::string_view>()>;

}  // namespace ConfSave::snapshots
