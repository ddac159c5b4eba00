#pragma once

// ConfSave keeps named snapshots of a gateway's configuration.
//
// A snapshot is one row of the SQLite file "storage.db": a name, a version, a type, two times and two gzip
// tar archives. One archive holds a fixed selection of the configuration directory, the other one holds the
// failover files from "/mnt/main/etc/".
//
//   #include <confsave.h>
//
//   // Save the whole configuration. Asks on the console before it overwrites.
//   if (!ConfSave::save("weekly", ConfSave::conf_full, 0, false)) return 1;
//
//   // List the snapshots, one line each.
//   ConfSave::Storage storage;
//   if (!storage.opened) return 1;
//   for (const ConfSave::Config& config : storage.List(0, "", true)) std::cout << config << '\n';
//
//   // Restore one without a question. Prints a failure on standard error.
//   ConfSave::load("weekly", nullptr, 0, true);
//
// There are two levels. The checked operations save() and load() check the name, ask, and print one message
// on standard error for every failure. The classes below them do not check and do not ask; they throw:
//
//   storage.Create("weekly", ConfSave::conf_full, 0);  // throws XConstraint if (weekly, 0) exists
//   storage.Create("o'hare", ConfSave::conf_full, 0);  // stores nothing, throws nothing: see Names
//
// Names. Only save() checks names. All other functions paste a name or a pattern into an SQL statement
// unchanged: pass only characters of VALID_NAME_CHARS, and in patterns also * ? [ ]. The storage refuses a
// statement that does more than read, insert or delete rows of the table and set a load time.
//
// Failures. The storage logs a statement that SQLite refuses, at level 2, and continues; it does not
// throw. To be sure that something was stored, look the row up. There are two exceptions to this rule:
// Create() throws XConstraint for a name that exists, and Load() throws XNotFound for a table that it
// cannot read.
//
// After a restore. load() syncs nothing. Call syncfs(2) on the configuration directory and on
// "/mnt/main/etc/" before you report success: a power cut within the next half minute can otherwise leave
// restored files empty.
//
// Directories. The configuration directory, its subdirectories and "/mnt/main/etc/" must belong to the user
// of the process, must not be writable by others, and must not be or contain symbolic links to directories:
// a restore follows them. A directory that becomes part of a shell command (the configuration directory,
// the target of a load, the temporary directory) must be absolute, without blanks, "%", and characters that
// a shell interprets.
//
// Versions are packed: major * 2^32 + minor * 2^24 + build * 2^16. 0 means "no version".
// Times are seconds since the epoch.
//
// Threads. Use the library from one thread at a time. It starts no thread and takes no lock of its own.
// Processes may share "storage.db"; each waits for the others, for up to 24.8 days.
//
// The gateway's maker supplies the platform (paths, log, command runner); see <kelmor/*.h>.

#include <string>
#include <vector>

#include "confsave/config.h"
#include "confsave/exceptions.h"

struct sqlite3;
struct sqlite3_stmt;

namespace ConfSave {

/// The characters that save() accepts in a name.
CONFSAVE_API extern const std::string VALID_NAME_CHARS;

/// The usual end of a question. Each source file that includes this header has its own copy.
static const std::string YES_NO_SUFFIX = " [Yes/No] ";

// ---------------------------------------------------------------------------------------------------
// The storage

/// A connection to "storage.db" for one operation: construct it, check `opened`, work, destroy it. It owns
/// the connection and can be neither copied nor moved.
///
/// Each statement takes effect by itself, except between Begin() and Commit(). A statement that SQLite
/// refuses is logged at level 2, not thrown, except by Create() and Load(). If `opened` is false, every
/// operation returns at once, except Begin(), Commit(), FindMatching() and Load(): do not call those.
class CONFSAVE_API Storage {
 public:
  /// False if the file could not be opened or created; the log says why.
  bool opened;

  /// Opens the file and makes its table if there is none. The state directory must exist. Does not throw
  /// when SQLite fails; exceptions of the host's log and paths propagate.
  Storage();

  /// Closes the connection. SQLite rolls back a transaction that was not committed.
  ~Storage();

  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;
  Storage(Storage&&) = delete;
  Storage& operator=(Storage&&) = delete;

  /// Starts a transaction with the exclusive lock. Waits for other processes. A refusal is only logged.
  void Begin();

  /// Commits the transaction. A refusal is only logged. A crash of the process does not undo it; a power
  /// cut in the next moment can.
  void Commit();

  /// True if there is a row of this name and exactly this version. Also true if the table cannot be read,
  /// so that an unreadable row is never overwritten without a question.
  bool Exists(const std::string& name, int64 version);

  /// Packs the configuration and inserts it as a new row. An archive that SQLite refuses, because it
  /// is too long or memory runs out, is stored as NULL. Throws XConstraint if (name, version) exists;
  /// exceptions of Archive::Create() and Archive::Fetch() propagate. After an exception the table is
  /// unchanged.
  void Create(const std::string& name, conftype type, int64 version);

  /// Packs the configuration, deletes the row (name, version) if it exists, and inserts a new one as
  /// Create() does. Call it between Begin() and Commit(), and look the row up before Commit(): if SQLite
  /// refuses the insert, the old row is gone. Exceptions of Archive::Create() and Archive::Fetch()
  /// propagate; the table is then unchanged.
  void Update(const std::string& name, conftype type, int64 version);

  /// Deletes the row, if it exists.
  void Delete(const std::string& name, int64 version);

  /// Sets the load time of the row of exactly this name and version, then unpacks its archives; see
  /// Archive::Extract(). Version 0 matches only version 0. `skip_corlu` skips the row named "corlu-config".
  /// Throws XNotFound if there is no such row or the table cannot be read, and XConstraint if a column has
  /// the wrong type. Exceptions of Archive propagate; the load time is set by then.
  void Load(const std::string& name, const char* target, int64 version, bool skip_corlu);

  /// All rows up to and including `version`, or all rows for 0. `order_by` is an SQL column list or empty,
  /// pasted unchanged. Times wrap at 32 bits. If SQLite stops in the middle, returns the rows that it has
  /// read, and logs nothing. Throws std::logic_error for a row whose name is NULL, which only a foreign
  /// table can contain.
  Configs List(int64 version, const std::string& order_by, bool skip_corlu);

  /// The rows whose name matches the glob `pattern`, of exactly `version`, or of any version for 0. Times
  /// wrap at 32 bits. If SQLite stops in the middle, logs this and returns the rows that it has read.
  Configs FindMatching(const std::string& pattern, int64 version, bool skip_corlu);

 private:
  std::string config_path;
  sqlite3* db;
};

/// Checks the type code of column `index` in the current row of `stmt`. If it is not `expected` and
/// `strict` is true, finalizes `stmt`, which must not be used again, and throws XConstraint; if `strict` is
/// false, only logs.
CONFSAVE_API void checkColumnType(const std::string& name, int64 version, sqlite3_stmt* stmt,
                                  const char* column, int index, int expected, bool strict);

// ---------------------------------------------------------------------------------------------------
// Files

/// At most one temporary file, mode 0600 under any umask, in the temporary directory. Owns the file and its
/// descriptor; can be neither copied nor moved.
class CONFSAVE_API TempFile {
 public:
  /// Makes no file.
  TempFile();

  /// Calls remove().
  ~TempFile();

  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  TempFile(TempFile&&) = delete;
  TempFile& operator=(TempFile&&) = delete;

  /// Makes the file unless there is one. Throws status_mkstemp.
  void create();

  /// True if there is a file.
  bool is_open() const;

  /// The descriptor, open for reading and writing, owned by this object. Throws status_command if there is
  /// no file.
  int fd() const;

  /// The full path; empty if there is no file.
  const std::string& name() const;

  /// The size in bytes. Throws status_command, status_fstat.
  int64 size() const;

  /// Sets the offset of the descriptor to 0. Throws status_command, status_lseek.
  void rewind() const;

  /// Closes and deletes the file, if there is one. Never throws. A failure is logged; is_open() is false
  /// afterwards in any case.
  void remove();

 private:
  std::string tmp_name;
  int tmp_fd;
};

/// One packed configuration on its way into the storage (Create(), Fetch()) or out of it
/// (Create(etc, keybase), Extract()). Use an object once, in one direction. It owns two temporary files and
/// can be neither copied nor moved.
class CONFSAVE_API Archive {
 public:
  /// `dir` is the configuration directory and must end in "/". Makes no file.
  Archive(conftype type, const std::string& dir);
  ~Archive();

  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;
  Archive(Archive&&) = delete;
  Archive& operator=(Archive&&) = delete;

  /// Packs the files that exist. Missing files are ignored. Throws XExternalFailure with status_command
  /// (tar) or status_access (the configuration database), XTOOStatus with status_mkstemp or status_lseek.
  void Create();

  /// Takes archives that Fetch() returned. Throws status_mkstemp, status_write, status_lseek.
  void Create(const std::vector<char>& etc, const std::vector<char>& keybase);

  /// Replaces both vectors. An archive that was not made becomes an empty vector. Throws status_read,
  /// status_fstat, status_lseek.
  void Fetch(std::vector<char>& etc, std::vector<char>& keybase) const;

  /// Deletes the configuration database, then unpacks both archives, of type conf_corlu only that of the
  /// configuration directory: into `target`, which must end in "/", or, if `target` is null, into the
  /// configuration directory and "/mnt/main/etc/". Replaces existing files; files that no archive has
  /// stay. Never restores files named "corlu.serv" or top-level names that begin with a dot. An archive
  /// without files is a failure. Throws XExternalFailure with status_command or status_unlink, XTOOStatus
  /// with status_mkdtemp. A failure rolls nothing back.
  void Extract(const char* target) const;

 private:
  std::string arc_dir;
  conftype arc_type;
  TempFile etc_file;
  TempFile keybase_file;
};

/// True if `path` exists, whatever kind of file it is. Follows symbolic links. Throws
/// XExternalFailure with status_access if access(2) fails for another reason than ENOENT.
CONFSAVE_API bool IsFileExist(const char* path);

/// Deletes `path` if it exists. Throws XExternalFailure with status_unlink on failure.
CONFSAVE_API void RemoveFileIfExists(const char* path);

/// True if `dir`, which must end in "/", contains the two files of the configuration database that are
/// packed. Throws as IsFileExist() does.
CONFSAVE_API bool IsConfigDbExist(const char* dir);

/// Deletes the three files of the configuration database in `dir`, which must end in "/". Stops at the
/// first file that it cannot delete, and throws as RemoveFileIfExists() does.
CONFSAVE_API void RemoveConfigDb(const char* dir);

// ---------------------------------------------------------------------------------------------------
// Checked operations. They use std::cin, std::cout and std::cerr. A stream exception that the host enables
// counts as a failure, except in ask_user_yesno() and while a failure is printed: there it propagates.

/// Saves the configuration under a name of 1 to 80 characters of VALID_NAME_CHARS. Version 0 means
/// CURRENT_VERSION. Asks before it overwrites, unless `force`. Prints every failure on standard error.
/// Returns true if it ran the statements, even if SQLite refused one, which only the log shows: look the
/// row up afterwards. Exceptions of the constructor of Storage propagate.
CONFSAVE_API bool save(const std::string& name, conftype type, int64 version, bool force);

/// Restores the only snapshot whose name matches the pattern `name`, of exactly `version`, or of any
/// version for 0. First offers to save the current configuration, or asks for a phrase; then warns of a
/// newer version. `no_confirm` skips all questions and the warning. `target`: see Archive::Extract().
/// Prints every failure on standard error, and throws nothing.
CONFSAVE_API void load(const std::string& name, const char* target, int64 version, bool no_confirm);

/// Prints `prompt` and reads one line. Returns true for y or yes, false for n or no, in upper or lower
/// case. Throws XCancel for any other line and at the end of input; with `repeat`, it instead prints the
/// prompt again, without end once the input has ended.
CONFSAVE_API bool ask_user_yesno(const std::string& prompt, bool repeat);

/// Functions for a gateway's shell. They do not check names, save and restore version 0 only, and print
/// failures on standard output, except where noted. They do not notice a storage that cannot be opened:
/// save() then returns true although it stored nothing.
class CONFSAVE_API App {
 public:
  /// Prints all snapshots of all versions, one line each. Throws nothing; prints every failure on standard
  /// error.
  static void lst();

  /// Saves the configuration. Asks before it overwrites; then deletes the old row before it packs the new
  /// one, without a transaction. Returns false if it stored nothing. Throws nothing. Prints the failure
  /// of a command on standard output, unless the old row is deleted by then; every other failure on
  /// standard error.
  static bool save(const std::string& name, conftype type);

  /// Deletes the snapshot, if it exists. Exceptions of the constructor of Storage and of Storage::Delete()
  /// propagate, except XNotFound, for which it prints a message.
  static void del(const std::string& name);

  /// Restores the snapshot. First offers to save the current configuration, as save() does; only "n" or "N"
  /// declines, and it then asks for a phrase. Exceptions of the constructor of Storage propagate.
  static void load(const std::string& name);
};

// ---------------------------------------------------------------------------------------------------
// Housekeeping. These functions ask and print nothing.

/// First deletes surplus autosaves, as CleanAutosaves() does, so that at most `maxautosaves` remain with
/// the new one; pass at least 1. Then saves the configuration under CURRENT_VERSION and a name such as
/// "autosave-2017-03-01-14-05-09", with "-0", "-1" and so on appended if that name exists. Tries at
/// most `maxautosaves` such numbers, and saves nothing if all these names exist. Ignores the first
/// argument. Exceptions of Storage propagate, most likely of Storage::Create(); the surplus autosaves
/// are deleted by then.
CONFSAVE_API void AutoSave(const std::string& name, conftype type, unsigned maxautosaves);

/// Saves the configuration under CURRENT_VERSION unless that row exists. Returns false if it exists; true
/// otherwise, also if `storage` is not opened. Exceptions of Storage::Create() propagate.
CONFSAVE_API bool save_if_unique(Storage& storage, const std::string& name, conftype type);

/// Deletes autosaves in the order in which FindMatching() returns them until one more fits under the limit;
/// all of them for 0. AutoSave() names them so that the oldest comes first. Every name that begins with
/// "autosave" counts, of any version. A failure to delete one is logged, and the next one follows.
/// Exceptions of Storage::FindMatching() propagate.
CONFSAVE_API void CleanAutosaves(Storage& storage, unsigned maxautosaves);

/// True if an autosave was saved more than 31 days (2678400 seconds) ago. False on every failure.
CONFSAVE_API bool CheckOld();

}  // namespace ConfSave
