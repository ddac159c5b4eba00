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
//   // Back to it, all or nothing.
//   auto restored = cs::restore({"weekly"});
//   if (!restored) return fail(restored.error());   // aftermath: what it has left behind
//
// To link: "pkg-config --libs confsave-snapshots", or confsave::snapshots of the CMake package confsave.
//
// Results. A function returns a Result: a value, or an Error with a code, the path that it is about, the
// system's error number, and a sentence. One without a value returns the Error, Code::ok if it has
// succeeded. Nothing is printed, nothing is asked, and no exception
// except std::bad_alloc leaves a function. What calls take, what they return and how they fail is in
// <confsave/snapshots/options.h>, <confsave/snapshots/values.h> and <confsave/snapshots/result.h>.
//
// Waiting. The `wait` of the options runs from the start of a call, and its own work counts. When it is
// over, the call waits for no lock any more, and returns Code::busy if one is held. restore() begins it
// anew after its check. After a step that cannot be taken back, as the storing of a row, a call waits two
// seconds more for what belongs to it. A restore with `confirm_within` also waits for its `program`.
//
// Memory. Archives are read as streams: memory does not grow with the size of a snapshot. Only save() holds
// its packed archives, and SQLite a copy of them. SQLite also holds the packed archives of a row that is
// exported, imported or stamped by a restore, up to twice.
//
// Times are seconds since the epoch, of 64 bits. Versions are packed, see <confsave.h>. Paths of members
// are absolute: where a restore puts them.
//
// Threads. Functions have no state in common; different threads may call them at the same time. What reads
// the live files runs threads of its own, which handle no signals and have ended on return. The functions
// that a caller passes run in the calling thread; while an archive is read, LC_CTYPE of this thread is that
// of "C.UTF-8". pthread_cancel(3) during a call and pthread_exit(3) in such a function abort the process.
//
// Locks of fcntl(2), as SQLite takes them, are lost when the process closes any descriptor of the file. A
// host keeps those that it has on the configuration database, and those of its own SQLite on a file that it
// passes to import_from(). Those on other files of the configuration it may lose in each call that reads
// them: locks of flock(2), or of open file descriptions, stay.
//
// Processes. save(), and what saves first, runs commands of the platform. No other thread may wait for a
// child that it has not started: how the command ended would be unknown, and the save fails. What commands
// do to signals, what a fork shares and which settings of SQLite count is in docs/embedding.md.

#include <optional>
#include <string>

#include "confsave.h"
#include "confsave/snapshots/options.h"
#include "confsave/snapshots/result.h"
#include "confsave/snapshots/values.h"

namespace ConfSave::snapshots {

// ---------------------------------------------------------------------------------------------------
// Snapshots

/// The rows that match. A storage that does not exist yet has none. Reads no archive. If the notes cannot
/// be read, no row has a comment or a pin; `notes` gets the reason, or Code::ok.
CONFSAVE_API Result<Snapshots> list(const Query& query = {});
CONFSAVE_API Result<Snapshots> list(const Query& query, Error& notes);

/// The only row that matches; else Code::not_found or Code::ambiguous.
CONFSAVE_API Result<Snapshot> find(const Query& query);

/// The members in the order of their paths. If an archive has a path twice, the later member counts.
/// Decodes both archives to the end. The `path` of Code::damaged and Code::unsafe names the member.
CONFSAVE_API Result<Members> members(const Id& id, const ReadOptions& options = {});

/// Passes the content of the member `path`, a file or a hard link, to `sink`, after both archives were
/// decoded to the end: a damaged snapshot gives nothing. Code::not_found: there is no such member;
/// Code::bad_argument: it is a directory or a symbolic link.
[[nodiscard]] CONFSAVE_API Error read_file(const Id& id, const std::string& path, const Sink& sink,
                                           const ReadOptions& options = {});

/// What differs, in the order of paths. A hard link counts as the file that it is. Against the live
/// configuration, the files are those that belong to the type of the snapshot; with the manifest of the
/// snapshot neither its archives are read, nor files that provably did not change since it was saved. A
/// configuration directory that is missing is an error: not every file was removed.
CONFSAVE_API Result<Differences> compare(const Id& older, Live newer, const ReadOptions& options = {});
CONFSAVE_API Result<Differences> compare(const Id& older, const Id& newer, const ReadOptions& options = {});

/// Decodes both archives to the end, checks every member and compares it with the manifest. Repairs
/// nothing.
CONFSAVE_API Result<Verdict> verify(const Id& id, const ReadOptions& options = {});

/// Saves the live configuration. What it reports as saved can be decoded, equals the files as they were at
/// one moment, is stored durably, and was read back.
///
/// The name has 1 to 80 letters, digits, "-" and "_". If the snapshot exists, it is Code::pinned or
/// Code::taken, unless `overwrite`; a snapshot that replaces a pinned one is pinned. Files that change
/// during the save are packed again, and are Code::changed_meanwhile after some attempts. Code::incomplete
/// if there is nothing to save. Code::ambiguous if another program has stored more than
/// one snapshot of this name and version: none is replaced. The storage is unchanged after every error,
/// except that the snapshot may be stored after Aftermath::perhaps_done.
///
/// The comment and the pin are stored with the row: no kill parts them, unless another program has made a
/// table in which "id" is no integer key. A comment that cannot be stored is only a warning. A pin that
/// cannot be kept is an error, the one of the notes. Without notes that can be read, it is not known
/// whether the old snapshot is pinned: `overwrite` replaces it all the same, as `even_pinned` deletes it,
/// and a warning says that the new one is not. Locked notes are Code::busy.
///
/// Calls of one host wait for each other, those of the program "confsave" included: `wait` limits the
/// waiting of the whole call.
CONFSAVE_API Result<Saved> save(const Id& id, const SaveOptions& options = {});

/// The same over `old`, as list() or find() returned it, if somebody has agreed to that: its id, save time
/// and sizes count. If another snapshot has its name and version by now, that is Code::taken; if it is
/// pinned, Code::pinned; if the notes cannot be read, their error. If there is none any more, nothing is
/// overwritten. `overwrite` means nothing.
CONFSAVE_API Result<Saved> save_over(const Snapshot& old, const SaveOptions& options = {});

/// Replaces the comment of a snapshot: at most 4,096 bytes of UTF-8 without control characters.
/// Comments and pins are kept in "notes.db" beside the storage; the storage itself does not change. Durable
/// on return.
[[nodiscard]] CONFSAVE_API Error note(const Id& id, const std::string& comment,
                                      const ChangeOptions& options = {});

/// Pins a snapshot, or unpins it. Durable on return.
[[nodiscard]] CONFSAVE_API Error pin(const Id& id, bool pinned, const ChangeOptions& options = {});

/// Deletes one snapshot and its notes, durably, and gives its pages back to the file system. Works on a
/// full disk: while there is room, each call that stores or deletes a snapshot, or changes its notes, keeps
/// 1 MiB of it in "storage.db-reserve" beside the storage. If it cannot be known whether the snapshot is
/// pinned, it is not deleted: the error of the notes. Qualify the call: the C library has a `remove` too,
/// which deletes a file.
[[nodiscard]] CONFSAVE_API Error remove(const Id& id, const RemoveOptions& options = {});

/// The same for this row only, as it was listed. Code::not_found if another one has its name since.
[[nodiscard]] CONFSAVE_API Error remove(const Snapshot& row, const RemoveOptions& options = {});

// ---------------------------------------------------------------------------------------------------
// Restoring

/// What restore() with these options would do. Changes nothing and does not take "confsave.lock"; `keep`,
/// `expected`, `check`, `confirm_within` and `program` mean nothing: nobody looks for a file that cannot be
/// kept. Code::pending while a restore waits for its check or for confirm(); Code::needs_attention until
/// recover() has seen to an interrupted one.
CONFSAVE_API Result<Plan> plan(const Id& id, const RestoreOptions& options = {});

/// Restores a snapshot, all or nothing: after it has returned, or after a kill or a power cut and one
/// recover(), each file is the old one or each is the new one. Success is durable.
///
/// Only what differs is written. Files of the contents that the snapshot does not have stay, unless
/// `exact`; of the configuration database none stays that the snapshot does not have. Symbolic links are
/// not followed. A file that changes meanwhile is Code::changed_meanwhile, and nothing is changed.
/// Extended attributes and access control lists of a replaced file are carried over. Without the rights of
/// root, owners are not compared, and a file that is written belongs to this process, and to its recorded
/// group if the process may give it to that.
///
/// The snapshot of the present configuration is named "before-load-YYYY-MM-DD-HH-MM-SS"; the newest five
/// of that name stay, and pinned ones; a restore that fails removes no older one. A restore that would
/// delete a file that this snapshot cannot hold, half of a database for example, is refused:
/// Code::incomplete. Without `keep` it is not, no snapshot is stored, and none removed.
CONFSAVE_API Result<Restored> restore(const Id& id, const RestoreOptions& options = {});

/// Finishes or undoes a restore that was interrupted, and takes back a pending one whose time is up or
/// whose machine was restarted; each call that changes snapshots, notes or the configuration does the same
/// first. While a restore is pending, its snapshot is neither replaced nor deleted (Code::pending).
/// Code::pending while a restore waits for its check or for confirm(); Code::needs_attention if files are
/// in the way that nobody can account for: they are left alone, and named.
CONFSAVE_API Result<Recovery> recover(const ChangeOptions& options = {});

/// The restore that is not finished, if there is one. Changes nothing.
CONFSAVE_API Result<std::optional<Unfinished>> unfinished(const ReadOptions& options = {});

// ---------------------------------------------------------------------------------------------------
// Pending restores
//
// A restore with `confirm_within` is pending: it is taken back unless confirm() keeps it in time. The time
// is that since the boot of the machine, whatever the clock says, and a restart ends it. A process of its
// own takes the restore back. If it is killed, the next call that changes something does, and recover() at
// the boot.

/// The restore that is pending, if there is one. Changes nothing.
CONFSAVE_API Result<std::optional<Pending>> pending(const ReadOptions& options = {});

/// Keeps the pending restore, durably. Code::not_pending if there is none, or its time is up: then it is
/// taken back.
CONFSAVE_API Result<Confirmed> confirm(const ChangeOptions& options = {});

/// Takes the pending restore back: the very files that were there before. Files that were edited since are
/// kept first, in a snapshot named "reverted-YYYY-MM-DD-HH-MM-SS". `When::now` without a pending restore is
/// Code::not_pending.
CONFSAVE_API Result<Recovery> revert(When when, const ChangeOptions& options = {});

// ---------------------------------------------------------------------------------------------------
// Keeping house

/// What needs attention: files that killed processes have left (unless a process holds "confsave.lock":
/// they may be its own), each failover file that is missing, the storage, its journal, its notes, their
/// directory and the temporary directory if other users can read or write them, directories of the
/// configuration that they can write, notes that cannot be read, a newest snapshot or autosave that is
/// stale, and little room. Changes nothing.
CONFSAVE_API Result<Status> status(const ReadOptions& options = {});

/// Whether this is the name of an autosave: "autosave-YYYY-MM-DD-HH-MM-SS", with or without "-N" behind it.
CONFSAVE_API bool is_autosave(const std::string& name);

/// Deletes the snapshots that match, except the newest ones. Never deletes a pinned snapshot, that of a
/// restore that is not finished (neither counts), the packet filter's own one, or the last snapshot that
/// can be restored: one that verify() finds intact or unproven always stays. If it cannot be known which
/// snapshots are pinned, nothing is deleted: the error of the notes. A dry run chooses by the same code; it
/// changes nothing, and does not take "confsave.lock".
CONFSAVE_API Result<Pruned> prune(const PruneOptions& options);

/// Saves the live configuration under the name of an autosave in local time, then deletes the oldest
/// autosaves if there are too many. The new one is stored and proven before an old one goes: after an error
/// every old one is there. It stays, whatever the clock says; for the others the rules of prune() hold. One
/// lock covers all of it.
CONFSAVE_API Result<Autosaved> autosave(const AutosaveOptions& options);

// ---------------------------------------------------------------------------------------------------
// Exchanging

/// Writes these snapshots into `file`, which is a storage of its own: an SQLite file with the same table.
/// Rows are copied as they are, with ids and times, whole or damaged; comments, pins, authors and manifests
/// are beside them in tables of their own. Each id is there once. The file has mode 0600, and appears
/// whole, or not at all. It is durable on return, unless a warning says that its directory could not be
/// synced.
CONFSAVE_API Result<Exported> export_to(const Ids& ids, const std::string& file,
                                        const ExportOptions& options = {});

/// Passes the bytes of such a file to `sink`, from a temporary one.
CONFSAVE_API Result<Exported> export_to(const Ids& ids, const Sink& sink, const ReadOptions& options = {});

/// Stores the snapshots of an exported file, or of another gateway's "storage.db", with their times and
/// notes: all of them, or none.
///
/// The file is opened for reading only and taken for hostile. Code::damaged if its structure or its tables
/// are not those of a storage, if a value has another type or save() would refuse a name, if an archive
/// cannot be decoded to its end or is not what the manifest says; Code::unsafe if a restore must not
/// follow a member, or if one is set-uid or set-gid. Without `overwrite` a snapshot of the same name
/// and version is Code::taken, or Code::pinned; with it, pins are kept as by save(). Code::pending while a
/// restore waits for its check or for confirm().
CONFSAVE_API Result<Imported> import_from(const std::string& file, const ImportOptions& options = {});

/// The same from bytes that `supply` gives.
CONFSAVE_API Result<Imported> import_from(const Supply& supply, const ImportOptions& options = {});

}  // namespace ConfSave::snapshots
