#pragma once

// Typed access to the snapshots of ConfSave: save one, know what is stored, see what changed.
//
//   #include <confsave/snapshots.h>
//
//   namespace cs = ConfSave::snapshots;
//
//   // Every snapshot, the oldest first.
//   auto all = cs::list();
//   if (!all) return fail(all.error());
//   for (const cs::Snapshot& snapshot : *all) std::cout << snapshot.config.name << '\n';
//
//   // Save, with a comment.
//   cs::SaveOptions options;
//   options.comment = "before the change";
//   auto saved = cs::save({"weekly"}, options);
//   if (!saved) return fail(saved.error());   // for example Code::taken, Code::busy
//   for (const std::string& path : saved->missing) std::cout << "not saved: " << path << '\n';
//
//   // What changed since.
//   auto differences = cs::compare({"weekly"}, cs::Live());
//   if (!differences) return fail(differences.error());   // for example Code::not_found, Code::damaged
//   for (const cs::Difference& difference : *differences) std::cout << difference.path << '\n';
//
// Results. Every function returns a Result: a value, or an Error with a code, the path that it is about,
// the system's error number, and a sentence. Nothing is printed, nothing is asked, and no exception
// except std::bad_alloc leaves a function.
//
// Waiting. A call waits for each lock of SQLite at most as long as the `wait` of its options says, and then
// returns Code::busy.
//
// Memory. Archives are read as streams: memory does not grow with the size of a snapshot. Only save() holds
// its packed archives, and SQLite a copy of them. SQLite also holds the packed archives of a row that is
// exported, imported or stamped by a restore, up to twice.
//
// Times are seconds since the epoch, of 64 bits. Versions are packed, see <confsave.h>. Paths of members
// are absolute: where a restore puts them.
//
// Threads. Functions have no state in common; different threads may call them at the same time.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "confsave.h"

namespace ConfSave::snapshots {

// ---------------------------------------------------------------------------------------------------
// Results

/// Why a function failed.
enum class Code {
  ok,
  bad_argument,       ///< the call is wrong; nothing was done
  not_found,          ///< no snapshot matches, or a snapshot has no such member
  ambiguous,          ///< more than one snapshot matches
  taken,              ///< a snapshot of this name and version exists
  pinned,             ///< the snapshot is protected from being deleted
  busy,               ///< another process holds a lock, and the wait is over
  pending,            ///< a restore waits for its check or for confirm(), and would be disturbed
  not_pending,        ///< no restore waits for confirm(); the text says how the last one ended
  incomplete,         ///< there is nothing to save: no file of the contents exists
  damaged,            ///< an archive cannot be decoded to its end, or a row has values of the wrong type
  unsafe,             ///< an archive has a member that a restore must not follow
  changed_meanwhile,  ///< a file changed while it was read
  denied,             ///< permission, or a file system that is read-only
  check_failed,       ///< the check of a restore failed, and the restore was taken back
  newer,              ///< of a newer version: a file that a newer ConfSave wrote, or a snapshot to restore
  no_space,           ///< a file system or quota is full
  no_storage,         ///< "storage.db" cannot be opened, or is not a storage
  needs_attention,    ///< an interrupted restore cannot be undone; the text says what a person has to do
  failed,             ///< a system call failed; `number` says how
};

/// What a failed restore has left behind.
enum class Aftermath {
  untouched,  ///< nothing was changed
  put_back,   ///< what was changed is as it was before
  mixed,      ///< some files are not as they were; the text names them, and recover() tries again
};

/// A failure.
struct Error {
  Code code = Code::ok;
  int number = 0;  ///< errno, or SQLite's extended code for a file that SQLite could not use; 0 if neither
  std::string path;                            ///< the file or member that it is about; may be empty
  std::string text;                            ///< one sentence without the path, without a line end
  Aftermath aftermath = Aftermath::untouched;  ///< of restore() and recover()
};

/// Either a Value or an Error.
template <class Value>
class [[nodiscard]] Result {
 public:
  // Implicit, so that a function returns either.
  // NOLINTBEGIN(google-explicit-constructor)
  // cppcheck-suppress noExplicitConstructor
  Result(Value value) : content_(std::move(value)) {}
  // cppcheck-suppress noExplicitConstructor
  Result(Error error) : content_(std::move(error)) {}
  // NOLINTEND(google-explicit-constructor)

  /// True if there is a value.
  explicit operator bool() const { return std::holds_alternative<Value>(content_); }

  /// The value. Only if there is one.
  Value& operator*() { return *std::get_if<Value>(&content_); }
  const Value& operator*() const { return *std::get_if<Value>(&content_); }
  Value* operator->() { return std::get_if<Value>(&content_); }
  const Value* operator->() const { return std::get_if<Value>(&content_); }

  /// The error. Only if there is no value.
  const Error& error() const { return *std::get_if<Error>(&content_); }

 private:
  std::variant<Value, Error> content_;
};

// ---------------------------------------------------------------------------------------------------
// Snapshots

/// Names exactly one row. Version 0 means the row that was stored without a version.
struct Id {
  std::string name;
  int64 version = CURRENT_VERSION;
};

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

/// Which rows, in which order.
struct Query {
  enum class Order { id, name, version, saved, loaded };

  std::string pattern = "*";          ///< of the name: * ? [ ] as SQLite's glob has them
  std::optional<int64> version = {};  ///< exactly this one
  std::optional<int64> up_to = {};    ///< this one or lower
  bool corlu_config = false;          ///< also the packet filter's own row, "corlu-config"
  Order order = Order::id;            ///< then by id
  std::chrono::milliseconds wait{1000};
};

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

/// Stands for the live configuration in a comparison.
struct Live {};

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

/// For calls that only read.
struct ReadOptions {
  std::chrono::milliseconds wait{1000};
};

/// The rows that match. A storage that does not exist yet has none. Reads no archive.
CONFSAVE_API Result<Snapshots> list(const Query& query = {});

/// The only row that matches; else Code::not_found or Code::ambiguous.
CONFSAVE_API Result<Snapshot> find(const Query& query);

/// The members in the order of their paths. If an archive has a path twice, the later member counts.
/// Decodes both archives to the end. The `path` of Code::damaged and Code::unsafe names the member.
CONFSAVE_API Result<Members> members(const Id& id, const ReadOptions& options = {});

/// Receives the content of a file, piece by piece. An error ends the reading, which returns it.
using Sink = std::function<Error(std::string_view)>;

/// Passes the content of the member `path`, a file or a hard link, to `sink`, after both archives were
/// decoded to the end: a damaged snapshot gives nothing. Code::not_found: there is no such member;
/// Code::bad_argument: it is a directory or a symbolic link.
CONFSAVE_API Error read_file(const Id& id, const std::string& path, const Sink& sink,
                             const ReadOptions& options = {});

/// What differs, in the order of paths. A hard link counts as the file that it is. Against the live
/// configuration, the files are those that belong to the type of the snapshot; with the manifest of the
/// snapshot neither its archives are read, nor files that provably did not change since it was saved.
CONFSAVE_API Result<Differences> compare(const Id& older, Live newer, const ReadOptions& options = {});
CONFSAVE_API Result<Differences> compare(const Id& older, const Id& newer, const ReadOptions& options = {});

/// Decodes both archives to the end, checks every member and compares it with the manifest. Repairs
/// nothing.
CONFSAVE_API Result<Verdict> verify(const Id& id, const ReadOptions& options = {});

/// How to save.
struct SaveOptions {
  conftype type = conf_full;
  std::string comment;       ///< at most 4,096 bytes of UTF-8 without control characters
  bool overwrite = false;    ///< replace the snapshot of this name and version
  bool if_changed = false;   ///< store nothing if the newest snapshot of this type equals the configuration
  bool allow_empty = false;  ///< save also if no file of the contents exists
  std::chrono::milliseconds wait{30000};
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
  /// the type has.
  std::vector<std::string> missing;
  std::vector<std::string> warnings;  ///< a sentence each; the snapshot is stored all the same
};

/// Saves the live configuration. What it reports as saved can be decoded, equals the files as they were at
/// one moment, is stored durably, and was read back.
///
/// The name has 1 to 80 letters, digits, "-" and "_". If the snapshot exists, it is Code::pinned or
/// Code::taken, unless `overwrite`; a snapshot that replaces a pinned one is pinned. Files that change
/// during the save are packed again, and are Code::changed_meanwhile after some attempts. Code::incomplete
/// if there is nothing to save. The storage is unchanged after every error. A comment that cannot be stored
/// is only a warning.
///
/// Calls of one host wait for each other, those of the program "confsave" included: `wait` limits the
/// waiting of the whole call.
CONFSAVE_API Result<Saved> save(const Id& id, const SaveOptions& options = {});

/// For calls that change a note.
struct ChangeOptions {
  std::chrono::milliseconds wait{30000};
};

/// Replaces the comment of a snapshot: at most 4,096 bytes of UTF-8 without control characters.
/// Comments and pins are kept in "notes.db" beside the storage; the storage itself does not change. Durable
/// on return.
CONFSAVE_API Error note(const Id& id, const std::string& comment, const ChangeOptions& options = {});

/// Pins a snapshot, or unpins it. Durable on return.
CONFSAVE_API Error pin(const Id& id, bool pinned, const ChangeOptions& options = {});

struct RemoveOptions {
  bool even_pinned = false;  ///< else Code::pinned
  std::chrono::milliseconds wait{30000};
};

/// Deletes one snapshot and its notes, durably, and gives its pages back to the file system. Works on a
/// full disk: while there is room, `save`, `note` and `remove` keep 1 MiB of it in "storage.db-reserve"
/// beside the storage. If it cannot be known whether the snapshot is pinned, it is not deleted: the error
/// of the notes. Qualify the call: the C library has a `remove` too, which deletes a file.
CONFSAVE_API Error remove(const Id& id, const RemoveOptions& options = {});

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

/// How to restore.
struct RestoreOptions {
  /// A directory that both archives are restored into, instead of the live configuration. Nothing is kept
  /// and no load time is stamped.
  std::string target;
  bool exact = false;        ///< also remove the files of the contents that the snapshot does not have
  bool keep = true;          ///< first save the present configuration, unless an equal snapshot is stored
  bool allow_newer = false;  ///< else a snapshot of a newer version than the running one is Code::newer
  /// A plan that a person has agreed to. If the restore would do anything else, Code::changed_meanwhile.
  std::optional<Plan> expected = {};
  /// Called when the files are restored, without any lock: it may call every function here. If it returns
  /// false or throws, or this process dies, the restore is taken back.
  std::function<bool()> check = {};
  /// The restore is taken back when this time is over, unless confirm() keeps it: kShortestWindow to
  /// kLongestWindow; 0: it needs no confirmation. Not with `target`.
  std::chrono::seconds confirm_within{0};
  /// The program that is started to take it back, with the arguments "revert --when-due"; it has to call
  /// revert(When::when_due). Empty: the installed "confsave".
  std::string program = {};
  /// Called now and then, by the calling thread. If it throws, the restore ends, and nothing was changed.
  std::function<void(const Progress&)> progress = {};
  std::chrono::milliseconds wait{30000};
};

constexpr std::chrono::seconds kShortestWindow{10};
constexpr std::chrono::seconds kLongestWindow{24 * 3600};

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

/// What restore() with these options would do. Changes nothing and takes no lock of the floor; `keep`,
/// `expected`, `check` and `progress` mean nothing.
CONFSAVE_API Result<Plan> plan(const Id& id, const RestoreOptions& options = {});

/// Restores a snapshot, all or nothing: after it has returned, or after a kill or a power cut and one
/// recover(), each file is the old one or each is the new one. Success is durable.
///
/// Only what differs is written. Files of the contents that the snapshot does not have stay, unless
/// `exact`; of the configuration database none stays that the snapshot does not have. Symbolic links are
/// not followed. A file that changes meanwhile is Code::changed_meanwhile, and nothing is changed.
/// Extended attributes and access control lists of a replaced file are carried over. Without the rights of
/// root, owners are neither compared nor set.
///
/// The snapshot of the present configuration is named "before-load-YYYY-MM-DD-HH-MM-SS"; the newest five
/// of that name stay, and pinned ones.
CONFSAVE_API Result<Restored> restore(const Id& id, const RestoreOptions& options = {});

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

/// Finishes or undoes a restore that was interrupted, and takes back a pending one whose time is up or
/// whose machine was restarted; save(), note(), pin(), remove() and restore() do the same first. While a
/// restore is pending, its snapshot is neither replaced nor deleted (Code::pending). Code::pending while a
/// restore waits for its check or for confirm(); Code::needs_attention if files are in the way that nobody
/// can account for: they are left alone, and named.
CONFSAVE_API Result<Recovery> recover(const ChangeOptions& options = {});

/// A restore that waits for its check or for confirm(), or was interrupted.
struct Unfinished {
  std::string name;  ///< of the snapshot
  int64 version = 0;
  bool is_pending = false;  ///< it waits
};

/// The restore that is not finished, if there is one. Changes nothing.
CONFSAVE_API Result<std::optional<Unfinished>> unfinished(const ReadOptions& options = {});

// ---------------------------------------------------------------------------------------------------
// Pending restores
//
// A restore with `confirm_within` is pending: it is taken back unless confirm() keeps it in time. The time
// is that since the boot of the machine, whatever the clock says, and a restart ends it. A process of its
// own, or a timer of systemd, takes the restore back. If it is killed, the next call that changes something
// does, and recover() at the boot.

/// A restore that waits for confirm() or for its check.
struct Pending {
  std::string name;  ///< of the snapshot
  int64 version = 0;
  std::string author;       ///< who restored it
  bool is_checked = false;  ///< its check runs: there is no deadline yet
  int64 deadline = 0;       ///< by the clock as it is set now; in the past after a restart
  int64 seconds_left = 0;   ///< 0: it is taken back now, or by the next call that changes something
};

/// The restore that is pending, if there is one. Changes nothing.
CONFSAVE_API Result<std::optional<Pending>> pending(const ReadOptions& options = {});

/// What confirm() did.
struct Confirmed {
  std::string name;  ///< of the snapshot
  int64 version = 0;
  std::vector<std::string> warnings;  ///< a sentence each; the restore is kept all the same
};

/// Keeps the pending restore, durably. Code::not_pending if there is none, or its time is up: then it is
/// taken back.
CONFSAVE_API Result<Confirmed> confirm(const ChangeOptions& options = {});

/// When revert() takes a pending restore back.
enum class When {
  now,
  if_due,    ///< only if its time is up, or the machine was restarted
  when_due,  ///< waits for that, or until it is confirmed or taken back; `wait` is for each attempt
};

/// Takes the pending restore back: the very files that were there before. Files that were edited since are
/// kept first, in a snapshot named "reverted-YYYY-MM-DD-HH-MM-SS". `When::now` without a pending restore is
/// Code::not_pending.
CONFSAVE_API Result<Recovery> revert(When when, const ChangeOptions& options = {});

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
  int64 free_bytes = 0;       ///< in the state directory, for its owner
};

/// What needs attention: files that killed processes have left (unless one holds the lock of the floor:
/// they may be its own), each failover file that is missing, the storage, its notes, their directory and
/// the temporary directory if other users can read or write them, a newest snapshot or autosave that is
/// stale, and little room. Changes nothing.
CONFSAVE_API Result<Status> status(const ReadOptions& options = {});

// ---------------------------------------------------------------------------------------------------
// Keeping house

/// Whether this is the name of an autosave: "autosave-YYYY-MM-DD-HH-MM-SS", with or without "-N" behind it.
CONFSAVE_API bool is_autosave(const std::string& name);

/// Which snapshots prune() deletes.
struct PruneOptions {
  int64 keep = 0;                                ///< how many stay, 1 or more: the newest by save time
  std::optional<std::chrono::hours> older_than;  ///< delete only what was saved longer ago than this
  std::optional<std::string> pattern;            ///< of the name, as in Query; default: every autosave
  bool dry_run = false;                          ///< delete nothing
  std::chrono::milliseconds wait{30000};
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

/// Deletes the snapshots that match, except the newest ones. Never deletes a pinned snapshot, that of a
/// restore that is not finished (neither counts), the packet filter's own one, or the last snapshot that
/// can be restored: one that verify() finds intact or unproven always stays. If it cannot be known which
/// snapshots are pinned, nothing is deleted: the error of the notes. A dry run chooses by the same code; it
/// changes nothing, and takes no lock of the floor.
CONFSAVE_API Result<Pruned> prune(const PruneOptions& options);

/// How to autosave.
struct AutosaveOptions {
  int64 most = 0;  ///< how many autosaves stay, 1 or more; pinned ones do not count
  conftype type = conf_full;
  bool if_changed = false;  ///< as for save()
  std::chrono::milliseconds wait{30000};
};

/// What autosave() did.
struct Autosaved {
  Saved saved;
  std::vector<Victim> deleted;       ///< the oldest first
  std::vector<Undeleted> undeleted;  ///< the others were deleted all the same
  Error undecided;                   ///< why no old one was deleted, if it is not known which ones may go
};

/// Saves the live configuration under the name of an autosave in local time, then deletes the oldest
/// autosaves if there are too many. The new one is stored and proven before an old one goes: after an error
/// every old one is there. It stays, whatever the clock says; for the others the rules of prune() hold. All
/// of it happens under one lock.
CONFSAVE_API Result<Autosaved> autosave(const AutosaveOptions& options);

// ---------------------------------------------------------------------------------------------------
// Exchanging

using Ids = std::vector<Id>;

/// How to export.
struct ExportOptions {
  bool overwrite = false;  ///< replace a file that exists; else Code::taken
  std::chrono::milliseconds wait{1000};
};

/// What export_to() did.
struct Exported {
  Snapshots snapshots;                ///< in the order of the ids
  std::vector<std::string> warnings;  ///< a sentence each; the file is there all the same
};

/// Writes these snapshots into `file`, which is a storage of its own: an SQLite file with the same table.
/// Rows are copied as they are, with ids and times, whole or damaged; comments, pins, authors and manifests
/// are beside them in tables of their own. The file has mode 0600, and appears whole and durable, or not at
/// all.
CONFSAVE_API Result<Exported> export_to(const Ids& ids, const std::string& file,
                                        const ExportOptions& options = {});

/// Passes the bytes of such a file to `sink`, from a temporary one.
CONFSAVE_API Result<Exported> export_to(const Ids& ids, const Sink& sink, const ReadOptions& options = {});

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

/// What import_from() did.
struct Imported {
  Snapshots snapshots;                ///< as they are stored now, with new ids
  std::vector<std::string> warnings;  ///< a sentence each; the snapshots are stored all the same
};

/// Stores the snapshots of an exported file, or of another gateway's "storage.db", with their times and
/// notes: all of them, or none.
///
/// The file is opened for reading only and taken for hostile. Code::damaged if its structure or its tables
/// are not those of a storage, if a value has another type or a name is none that save() takes, if an
/// archive cannot be decoded to its end or is not what the manifest says; Code::unsafe if a restore must
/// not follow a member, or if one is set-uid or set-gid. Without `overwrite` a snapshot of the same name
/// and version is Code::taken, or Code::pinned. Code::pending while a restore waits for its check.
CONFSAVE_API Result<Imported> import_from(const std::string& file, const ImportOptions& options = {});

/// Gives the next bytes, valid until the next call; empty at the end.
using Supply = std::function<Result<std::string_view>()>;

/// The same from bytes that `supply` gives.
CONFSAVE_API Result<Imported> import_from(const Supply& supply, const ImportOptions& options = {});

}  // namespace ConfSave::snapshots
