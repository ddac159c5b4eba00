#pragma once

// What the calls of <confsave/snapshots.h> return: what is stored, what they did, what they would do.

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "confsave/config.h"
#include "confsave/snapshots/result.h"

namespace ConfSave::snapshots {

// ---------------------------------------------------------------------------------------------------
// Snapshots

/// One row, without its archives.
struct Snapshot {
  int64 id = 0;            ///< of the row; never used twice in one storage
  Config config{0};        ///< times of 64 bits; a load time of 0 means never
  int64 keybase_size = 0;  ///< bytes of the archive of the configuration directory, packed
  int64 etc_size = 0;      ///< bytes of the archive of the failover directory, packed
  // From the notes beside the storage; empty without them.
  std::string comment;
  std::string author;   ///< who saved it
  bool pinned = false;  ///< protected from being deleted by rules
};
using Snapshots = std::vector<Snapshot>;

/// What sort of file a member is.
enum class Kind { file, directory, symlink, hardlink };

using Digest = std::array<std::uint8_t, 32>;

/// One file in a snapshot.
struct Member {
  std::string path;  ///< absolute
  Kind kind = Kind::file;
  std::uint32_t mode = 0;  ///< permission bits, set-uid, set-gid and sticky included
  std::uint32_t uid = 0;   ///< of the user of the stored name, if this machine has one; else as stored
  std::uint32_t gid = 0;
  int64 size = 0;       ///< bytes; of a hard link those of its file; 0 for a directory or symbolic link
  int64 time = 0;       ///< of the last modification
  Digest sha256{};      ///< of the content; of a symbolic link that of its target; zeros for a directory
  std::string target;   ///< of a symbolic link, as stored; of a hard link the absolute path of its file
  bool secret = false;  ///< holds keys: do not show its content
};
using Members = std::vector<Member>;

/// What happened to a path from the older to the newer side of a comparison.
enum class Change { added, removed, modified };

/// One path that differs.
struct Difference {
  std::string path;  ///< absolute
  Change change = Change::modified;
  // Of a modified path, what differs.
  bool content = false;  ///< bytes, kind of file, or the target of a symbolic link
  bool mode = false;
  bool owner = false;
  bool group = false;
  bool time = false;    ///< in whole seconds; not compared for directories
  bool secret = false;  ///< holds keys: do not show its content
};
using Differences = std::vector<Difference>;

/// Whether a snapshot can be restored.
struct Verdict {
  enum class State {
    intact,    ///< yes: both archives can be decoded to the end, and hold what the manifest says
    unproven,  ///< yes, as far as the archives can say; there is no manifest to compare them with
    damaged,   ///< no: a row with values of the wrong type, an archive that ends early, fails its checksum,
               ///< or differs from the manifest
    unsafe,    ///< no: a member that a restore must not follow
  };

  Snapshot snapshot;
  State state = State::intact;
  std::vector<std::string> problems;  ///< a sentence each; empty if intact
  std::vector<std::string> missing;   ///< absolute paths that the save did not find, or could not pack
};

/// What save() did.
struct Saved {
  enum class Outcome {
    created,
    replaced,
    unchanged,  ///< `snapshot` is the newest one of the type, and nothing was stored
  };

  Outcome outcome = Outcome::created;
  Snapshot snapshot;
  int64 files = 0;  ///< members except directories
  int64 bytes = 0;  ///< of their content
  /// Files that one expects in the snapshot and that are not in it: those that cannot be read, those of a
  /// configuration database that is not whole, and fixed paths of the contents that the newest snapshot of
  /// the type has. A restore that keeps the configuration does not delete a file that no snapshot holds.
  std::vector<std::string> missing;
  std::vector<std::string> warnings;  ///< a sentence each; the snapshot is stored all the same
};

// ---------------------------------------------------------------------------------------------------
// Restoring

/// What a restore does to a path.
enum class Action {
  create,
  replace,  ///< with other content, or another kind of file
  remove,
  attributes,  ///< same content; mode, owner, group or time differ
};

/// One path that a restore changes.
struct PlannedChange {
  Action action = Action::replace;
  Difference difference;  ///< from what is there now to the snapshot
};

/// What a restore would do.
struct Plan {
  Snapshot snapshot;
  std::vector<PlannedChange> changes;  ///< in the order of paths; empty: nothing would change
  /// Files of the contents that the snapshot does not have, and that stay.
  std::vector<std::string> extra;
  /// Stands for the files that would change, as they are now: another one if one of them changes.
  Digest present{};
};

/// How far a restore is.
struct Progress {
  enum class Phase {
    reading,   ///< both archives, compared with the files
    staging,   ///< the new files
    keeping,   ///< the present configuration; without figures
    exchange,  ///< without figures
  };

  Phase phase = Phase::reading;
  int64 done = 0;   ///< packed bytes
  int64 total = 0;  ///< packed bytes
};

/// What restore() did.
struct Restored {
  enum class Outcome {
    unchanged,  ///< the configuration equals the snapshot already
    restored,
    pending,  ///< restored, and taken back at `deadline` unless confirm() keeps it
  };

  Outcome outcome = Outcome::unchanged;
  Plan plan;                          ///< what was done
  int64 deadline = 0;                 ///< of a pending restore, by the clock as it is set now
  std::string kept;                   ///< the snapshot that holds the configuration of before; may be empty
  std::vector<std::string> warnings;  ///< a sentence each; the restore is done all the same
};

/// What recover() or revert() did.
struct Recovery {
  enum class Outcome {
    nothing,   ///< no restore was interrupted, or is due
    undone,    ///< the files of before are back
    finished,  ///< the restore had passed its point of no return
    reverted,  ///< a pending restore was taken back: the files of before are back
  };

  Outcome outcome = Outcome::nothing;
  std::string name;  ///< of the snapshot
  int64 version = 0;
  std::string kept;                   ///< the snapshot of what was edited since the restore; may be empty
  std::vector<std::string> warnings;  ///< a sentence each
};

/// A restore that waits for its check or for confirm(), or was interrupted.
struct Unfinished {
  std::string name;  ///< of the snapshot
  int64 version = 0;
  bool is_pending = false;  ///< it waits
};

// ---------------------------------------------------------------------------------------------------
// Pending restores

/// A restore that waits for confirm() or for its check.
struct Pending {
  std::string name;  ///< of the snapshot
  int64 version = 0;
  std::string author;       ///< who restored it
  bool is_checked = false;  ///< its check runs: there is no deadline yet
  int64 deadline = 0;       ///< by the clock as it is set now; the present time once the window is over
  /// 0 without a deadline; else 0: it is taken back now, or by the next call that changes something.
  int64 seconds_left = 0;
};

/// What confirm() did.
struct Confirmed {
  std::string name;  ///< of the snapshot
  int64 version = 0;
  std::vector<std::string> warnings;  ///< a sentence each; the restore is kept all the same
};

// ---------------------------------------------------------------------------------------------------
// Keeping house

/// Something that a person should look at.
struct Attention {
  std::string code;  ///< pending, interrupted, leftovers, failover-missing, readable, stale, space
  std::string text;  ///< one sentence, with the path that it is about
};

/// A newest snapshot, or autosave, that is older is stale.
constexpr std::chrono::hours kStaleAfter{31 * 24};
/// Less room than this, or than three times the largest snapshot, needs attention.
constexpr int64 kLeastRoom = int64{4} << 20;

/// The state of the storage, and of what is around it.
struct Status {
  std::vector<Attention> attention;
  int64 snapshots = 0;
  int64 newest = 0;           ///< save time; 0 without a snapshot
  int64 newest_autosave = 0;  ///< save time; 0 without an autosave
  int64 storage_bytes = 0;    ///< of "storage.db"
  int64 free_bytes = 0;       ///< in the state directory, for users other than root
};

/// A snapshot that was deleted, or would be.
struct Victim {
  Snapshot snapshot;
  std::string reason;  ///< why: a phrase without a line end
};

/// A snapshot that should have been deleted, and is still there.
struct Undeleted {
  Victim victim;
  Error error;
};

/// What prune() did, or would do.
struct Pruned {
  int64 kept = 0;                    ///< how many of those that count stay
  std::vector<Victim> deleted;       ///< the oldest first
  std::vector<Undeleted> undeleted;  ///< the others were deleted all the same
};

/// What autosave() did.
struct Autosaved {
  Saved saved;
  std::vector<Victim> deleted;       ///< the oldest first
  std::vector<Undeleted> undeleted;  ///< the others were deleted all the same
  Error undecided;                   ///< why no old one was deleted, if that is not safe
};

// ---------------------------------------------------------------------------------------------------
// Exchanging

/// What export_to() did.
struct Exported {
  Snapshots snapshots;                ///< in the order of the ids
  std::vector<std::string> warnings;  ///< a sentence each; the file is there all the same
};

/// What import_from() did.
struct Imported {
  Snapshots snapshots;                ///< as they are stored now, with new ids
  std::vector<std::string> warnings;  ///< a sentence each; the snapshots are stored all the same
};

}  // namespace ConfSave::snapshots
