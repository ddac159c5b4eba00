#pragma once

// ConfSave keeps named snapshots of a gateway's configuration.
//
// A snapshot is one row of the SQLite file "storage.db": a name, a version number, a kind, two times
// and two gzip tar archives. One archive holds chosen files of the configuration directory, the other
// the failover settings from "/mnt/main/etc/".
//
//   #include <confsave.h>
//
//   // Keep the whole configuration under a name. Asks on the console before it overwrites.
//   if (!ConfSave::save("weekly", ConfSave::conf_full, 0, false)) return 1;
//
//   // What is stored? One line each, in the order of the rows.
//   ConfSave::Storage storage;
//   if (!storage.opened) return 1;
//   for (const ConfSave::Config& config : storage.List(0, "", true)) std::cout << config << '\n';
//
//   // Bring it back, without a question. Failures are told on standard error.
//   ConfSave::load("weekly", nullptr, 0, true);
//
// Two levels. The guarded operations save() and load() check the name, ask, and turn every failure
// into one message on standard error. The classes below them do as they are told and throw:
//
//   storage.Create("weekly", ConfSave::conf_full, 0);  // throws XConstraint if (weekly, 0) is taken
//   storage.Create("o'hare", ConfSave::conf_full, 0);  // stores nothing, throws nothing: see Names
//
// Names. Only save() checks names. Everything else pastes a name or a pattern into an SQL statement as
// it comes: pass nothing but characters of VALID_NAME_CHARS, and in patterns also * ? [ ]. A statement that
// goes beyond the rows of the table (drops or attaches something, sets a pragma, renames a row) is refused.
//
// Failures. A statement that SQLite refuses is logged, not thrown, and the operation goes on or returns:
// look the row up again where it matters. Two refusals are thrown all the same: a taken name in Create()
// is XConstraint, and to Load() a table that it cannot read holds no such row, which is XNotFound.
//
// Versions are packed: major * 2^32 + minor * 2^24 + build * 2^16. 0 means "no version".
// Times are seconds since the epoch. Directories that end up in a shell command (the configuration
// directory, the target of a load, the directory for temporary files) must be absolute and free of blanks,
// of characters that mean something to a shell, and of "%".
//
// Threads. The library starts none and locks nothing: use it from one thread at a time. Several
// processes may work on one "storage.db"; one waits for the other, for up to 24.8 days.
//
// The platform (paths, logging, the command runner) comes from the host; see <kelmor/*.h>.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "kelmor/status.h"

#define CONFSAVE_API __attribute__((visibility("default")))

struct sqlite3;
struct sqlite3_stmt;

namespace ConfSave {

/// As signatures in log records spell it.
using int64 = std::int64_t;

/// The version of the running software, 4.5.4.
constexpr int64 CURRENT_VERSION = 0x405040000;

/// The characters that a configuration name may have.
CONFSAVE_API extern const std::string VALID_NAME_CHARS;

/// The usual end of a question. Every source file that includes this header has its own copy.
static const std::string YES_NO_SUFFIX = " [Yes/No] ";

/// The kind of a configuration. Other values are legal; they print as nothing and pack like conf_part.
enum conftype : std::int32_t {
  conf_none = 0,   ///< not set
  conf_full = 1,   ///< everything, the network description included
  conf_part = 2,   ///< everything but the network description
  conf_corlu = 3,  ///< the packet-filter component only; has no failover archive
};

// ---------------------------------------------------------------------------------------------------
// Records

/// What is known of one stored configuration, without its archives. A plain value.
class CONFSAVE_API Config {
 public:
  std::string name;  ///< as stored; only save() checks one
  conftype type;     ///< decides what was packed, and what a load unpacks
  int64 vers;        ///< packed version
  int64 save_time;   ///< seconds since the epoch
  int64 load_time;   ///< seconds since the epoch; 0 when never loaded

  /// An unnamed record of no type, saved now, never loaded.
  explicit Config(int64 version);

  /// Sets save_time to now.
  void update_save_time();

  /// Sets load_time to now.
  void update_load_time();

  /// The text of a packed version, for example "4.5.4"; empty for 0. The low 16 bits do not show.
  static std::string version(int64 v);

  /// The text of this record's version.
  std::string version() const;

  /// Sets `vers` from a text such as "4.5.4": three decimal numbers below 2^32 with any white space and
  /// punctuation around and between them. A minor or build above 255 carries over, and one of 2^31 or
  /// more counts as negative. Returns false, with `vers` 0, for any other text. White space and
  /// punctuation are those of the process's C locale.
  bool vers_convert(std::string text);
};

/// In the order in which the database gave them.
using Configs = std::vector<Config>;

/// The local time as "01.03.2017 at 14:05"; empty for a time that the C library cannot convert.
/// Uses localtime(): not for several threads at once.
CONFSAVE_API std::string time_format(int64 t);

/// Writes "full", "part" or "corlu", nothing for any other value or when `out` is not good.
CONFSAVE_API std::ostream& operator<<(std::ostream& out, conftype type);

/// Writes the record as one line without a line end, nothing when `out` is not good:
/// "weekly",<TAB>version 4.5.4,<TAB>full, saved on 01.03.2017 at 14:05, never loaded
CONFSAVE_API std::ostream& operator<<(std::ostream& out, const Config& config);

// ---------------------------------------------------------------------------------------------------
// Exceptions
//
// All derive from XTOOStatus, and can be caught as XTOOStatus or XTOOMsg in the host, too. The classes
// below carry status_none unless their comment says otherwise.

/// What Status() of an exception can be. Those without a class of their own are a plain XTOOStatus, with
/// the system's text except where noted.
enum status_code : int {
  status_none = 0,      ///< the class of the exception says what happened
  status_mkdtemp = 3,   ///< a scratch directory cannot be made in the destination
  status_read = 5,      ///< an archive cannot be read back from its temporary file
  status_write = 6,     ///< an archive cannot be written to its temporary file
  status_mkstemp = 17,  ///< a temporary file cannot be made
  status_access = 19,   ///< XExternalFailure: it cannot be found out whether a file exists
  status_command = 36,  ///< XExternalFailure: tar, cp or rm failed; XTOOStatus: no temporary file; no text
  status_unlink = 43,   ///< XExternalFailure: a file cannot be deleted
  status_fstat = 45,    ///< the size of a temporary file is not known
  status_lseek = 54,    ///< a temporary file cannot be rewound
};

/// A command (status_command) or a system call (status_access, status_unlink) failed.
class CONFSAVE_API XExternalFailure : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// The user declined.
class CONFSAVE_API XCancel : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// No stored configuration matches.
class CONFSAVE_API XNotFound : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// More than one stored configuration matches.
class CONFSAVE_API XAmbiguity : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// A stored row is broken, or a name and version are taken; the text says which.
class CONFSAVE_API XConstraint : public XTOOStatus {
 public:
  using XTOOStatus::XTOOStatus;
};

/// A directory could not be entered. The library reports it but never throws it: it is for hosts whose
/// command runner changes directories.
class CONFSAVE_API XChdir : public XExternalFailure {
 public:
  /// As XTOOStatus; `directory` is for the message that a person gets.
  XChdir(int status, bool flag, std::string directory);
  /// As XTOOStatus, with a text.
  XChdir(int status, const char* text, bool flag, std::string directory);

  /// As it was given. Owned by this object.
  const std::string& Directory() const { return directory_; }

 private:
  std::string directory_;
};

// ---------------------------------------------------------------------------------------------------
// The storage

/// A connection to "storage.db", for the length of one operation. Construct, look at `opened`, work,
/// destroy. It is the one owner of the connection and can be neither copied nor moved.
///
/// Each statement takes effect by itself, except between Begin() and Commit(). SQLite's refusals are
/// logged at level 2 and not thrown, but as Create() and Load() say. On an object that is not opened every
/// operation returns at once, but for Begin(), Commit(), FindMatching() and Load(), which are not to be
/// called then.
class CONFSAVE_API Storage {
 public:
  /// False when the file could not be opened or created; the log says why.
  bool opened;

  /// Opens the file and makes its table where there is none. The directory must exist. Does not throw
  /// when SQLite fails.
  Storage();

  /// Closes the connection. What was begun and not committed is undone.
  ~Storage();

  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;
  Storage(Storage&&) = delete;
  Storage& operator=(Storage&&) = delete;

  /// Takes the exclusive lock, waiting for other processes. A refusal is only logged.
  void Begin();

  /// Commits what was done since Begin(). A refusal is only logged. No crash of the process undoes it; a
  /// power cut in the next moment can.
  void Commit();

  /// True if there is a row of this name and exactly this version, and also when that cannot be found
  /// out: what cannot be read is not to be overwritten unasked.
  bool Exists(const std::string& name, int64 version);

  /// Packs the configuration and stores it as a new row.
  /// Throws XConstraint when (name, version) is taken, and what Archive::Create() and Fetch() throw;
  /// the table is then as it was.
  void Create(const std::string& name, conftype type, int64 version);

  /// Packs the configuration and stores it in place of the row (name, version), which need not exist.
  /// Throws what Archive::Create() and Fetch() throw; the table is then as it was.
  /// Call it between Begin() and Commit(): the old row is deleted before the new one is written.
  void Update(const std::string& name, conftype type, int64 version);

  /// Deletes the row, if there is one.
  void Delete(const std::string& name, int64 version);

  /// Stamps the row of exactly this name and version, 0 being one too, with the time and unpacks its
  /// archives, see Archive::Extract(). `skip_corlu` leaves out the row named "corlu-config".
  /// Throws XNotFound when there is no such row or the table cannot be read; XConstraint when a column
  /// has the wrong type; what Archive throws, the stamp then being set already.
  void Load(const std::string& name, const char* target, int64 version, bool skip_corlu);

  /// All rows up to and including `version`, or all for 0. `order_by` is a column list as SQL has it,
  /// or empty; it is pasted as it is. Times wrap at 32 bits. Throws std::logic_error for a row without a
  /// name, which only a table from elsewhere can hold.
  Configs List(int64 version, const std::string& order_by, bool skip_corlu);

  /// The rows whose name matches the glob `pattern`, of exactly `version`, or of any for 0. Times wrap at
  /// 32 bits.
  Configs FindMatching(const std::string& pattern, int64 version, bool skip_corlu);

 private:
  std::string config_path;
  sqlite3* db;
};

/// Checks column `index` of the row that `stmt` stands on. When its type code is not `expected`: if
/// `strict`, finalizes `stmt`, which must not be used again, and throws XConstraint; if not, only logs.
CONFSAVE_API void checkColumnType(const std::string& name, int64 version, sqlite3_stmt* stmt,
                                  const char* column, int index, int expected, bool strict);

// ---------------------------------------------------------------------------------------------------
// Files

/// At most one scratch file, 0600 under any umask, in the platform's directory for temporary files.
/// Owns the file and its descriptor, so it can be neither copied nor moved.
class CONFSAVE_API TempFile {
 public:
  /// Makes no file.
  TempFile();

  /// As remove().
  ~TempFile();

  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  TempFile(TempFile&&) = delete;
  TempFile& operator=(TempFile&&) = delete;

  /// Makes the file unless there is one. Throws XTOOStatus 17.
  void create();

  /// True if there is a file.
  bool is_open() const;

  /// The descriptor, open for reading and writing, owned by this object. Throws XTOOStatus 36 when
  /// there is no file.
  int fd() const;

  /// The full path, empty when there is no file.
  const std::string& name() const;

  /// The size in bytes. Throws XTOOStatus 36, 45.
  int64 size() const;

  /// Moves the descriptor's offset to the start. Throws XTOOStatus 36, 54.
  void rewind() const;

  /// Closes and deletes the file, if there is one. Never throws; a failure is logged, and the file
  /// forgotten.
  void remove();

 private:
  std::string tmp_name;
  int tmp_fd;
};

/// One packed configuration, on its way into the storage (Create(), Fetch()) or out of it
/// (Create(etc, keybase), Extract()). Use it once, in one direction. It owns its two temporary files,
/// so it can be neither copied nor moved.
class CONFSAVE_API Archive {
 public:
  /// `dir` is the configuration directory, ending in "/". Makes no file.
  Archive(conftype type, const std::string& dir);
  ~Archive();

  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;
  Archive(Archive&&) = delete;
  Archive& operator=(Archive&&) = delete;

  /// Packs the files that are there; missing ones are left out. Throws XExternalFailure 36 (tar), 19
  /// (the configuration database cannot be looked for), XTOOStatus 17, 36, 54.
  void Create();

  /// Takes archives as Fetch() gave them. Throws XTOOStatus 6, 17, 36, 54.
  void Create(const std::vector<char>& etc, const std::vector<char>& keybase);

  /// Replaces the contents of both vectors; an archive that was not made comes back empty.
  /// Throws XTOOStatus 5, 36, 45, 54.
  void Fetch(std::vector<char>& etc, std::vector<char>& keybase) const;

  /// Deletes the configuration database, then unpacks over what is there: into `target`, which must end
  /// in "/", or, when it is null, into the configuration directory and "/mnt/main/etc/". Files that are
  /// not in an archive stay. Files named "corlu.serv" are never restored, nor top-level names that
  /// begin with a dot. An archive that holds nothing is a failure.
  /// Throws XExternalFailure 36, 43, XTOOStatus 3. Nothing is rolled back.
  void Extract(const char* target) const;

 private:
  std::string arc_dir;
  conftype arc_type;
  TempFile etc_file;
  TempFile keybase_file;
};

/// True if `path` exists, whatever it is. Throws XExternalFailure 19 when that cannot be found out.
CONFSAVE_API bool IsFileExist(const char* path);

/// Deletes `path` if it exists. Throws XExternalFailure 43 when it cannot.
CONFSAVE_API void RemoveFileIfExists(const char* path);

/// True if the configuration database is below `dir`, which must end in "/". Throws as IsFileExist().
CONFSAVE_API bool IsConfigDbExist(const char* dir);

/// Deletes the configuration database below `dir`, which must end in "/". Stops at the first file that
/// cannot be deleted, and throws as RemoveFileIfExists().
CONFSAVE_API void RemoveConfigDb(const char* dir);

// ---------------------------------------------------------------------------------------------------
// Guarded operations. They use std::cin, std::cout and std::cerr; what a host lets those throw, they may
// throw as well.

/// Stores the configuration under a name of 1 to 80 characters of VALID_NAME_CHARS. Version 0 means
/// CURRENT_VERSION. Asks before it overwrites, unless `force`. Tells every failure on standard error.
/// True when SQLite was asked to store it: a refused statement is in the log only, so look the row up
/// again where it matters. Throws only what constructing a Storage throws.
CONFSAVE_API bool save(const std::string& name, conftype type, int64 version, bool force);

/// Restores the one configuration whose name matches the pattern `name`, of exactly `version` or of any
/// for 0. Offers to save the current configuration first, demands a typed phrase otherwise, and warns
/// of a newer version; `no_confirm` leaves all of that out, the warning included. `target`: see
/// Archive::Extract(). Tells every failure on standard error, and throws nothing.
CONFSAVE_API void load(const std::string& name, const char* target, int64 version, bool no_confirm);

/// Writes `prompt` as it is and reads one line: true for y or yes, false for n or no, in any case of
/// letters. Any other line, end of input included, throws XCancel, or with `repeat` asks again: then
/// without end once the input has ended.
CONFSAVE_API bool ask_user_yesno(const std::string& prompt, bool repeat);

/// The commands of a gateway's shell. They do not check names, store and restore under version 0 only,
/// and tell failures on standard output, unless said otherwise.
///
/// Storage that cannot be opened is not told: save() then returns true although nothing was stored.
class CONFSAVE_API App {
 public:
  /// Lists all configurations of all versions, one line each. Throws nothing: every failure is told on
  /// standard error.
  static void lst();

  /// Stores the configuration; asks before it overwrites. The old row is deleted before the new one is
  /// packed, with no transaction around them. Returns false when it was not stored. Throws nothing: what
  /// is neither a taken name nor a failed command is told on standard error.
  static bool save(const std::string& name, conftype type);

  /// Deletes the configuration, if there is one. Throws what constructing a Storage and
  /// Storage::Delete() throw, but for XNotFound, which is told.
  static void del(const std::string& name);

  /// Restores the configuration. Offers to save the current one first, as save() does; only "n" or "N"
  /// declines, and then a typed phrase is demanded. Throws what constructing a Storage throws.
  static void load(const std::string& name);
};

// ---------------------------------------------------------------------------------------------------
// Housekeeping. These ask and print nothing.

/// Stores the configuration under CURRENT_VERSION and a name such as "autosave-2017-03-01-14-05-09",
/// with "-0", "-1" and so on behind it where that is taken. Before, deletes autosaves as CleanAutosaves()
/// does, so that at most `maxautosaves`, which is to be at least 1, are stored afterwards. The first
/// argument is not used. Throws what constructing a Storage and its operations throw, in the first place
/// Storage::Create(); the surplus autosaves are then deleted all the same.
CONFSAVE_API void AutoSave(const std::string& name, conftype type, unsigned maxautosaves);

/// Stores the configuration under CURRENT_VERSION if the name is free under it. True if it was, and
/// also when `storage` is not opened. Throws what Storage::Create() throws.
CONFSAVE_API bool save_if_unique(Storage& storage, const std::string& name, conftype type);

/// Deletes the autosaves that FindMatching() finds first, so that one more fits under the limit; all of
/// them for 0. They come in the order of names: the oldest first, as far as AutoSave() named them. What
/// cannot be deleted is logged and left. Every name that begins with "autosave" is one, of any version.
/// Throws what FindMatching() throws.
CONFSAVE_API void CleanAutosaves(Storage& storage, unsigned maxautosaves);

/// True if an autosave of more than 31 days (2678400 seconds) ago is stored. False on every failure.
CONFSAVE_API bool CheckOld();

}  // namespace ConfSave
