#include "snapshots/database.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <thread>

#include "snapshots/system_error.h"

namespace ConfSave::snapshots {
namespace {

Code code_of(int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return Code::busy;
    case SQLITE_FULL:
      return Code::no_space;
    case SQLITE_PERM:
    case SQLITE_READONLY:
    case SQLITE_AUTH:
      return Code::denied;
    case SQLITE_CANTOPEN:
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_ERROR:
      return Code::no_storage;
    default:
      return Code::failed;
  }
}

/// What SQLite calls when it meets a lock; 0 ends the wait.
int wait_for_lock(void* deadline, int) {
  constexpr std::chrono::milliseconds kPause(10);
  const auto left = static_cast<const Deadline*>(deadline)->left();
  if (left.count() == 0) return 0;
  std::this_thread::sleep_for(std::min(left, kPause));
  return 1;
}

Error irregular(const std::string& file) {
  return {Code::no_storage, 0, file, "this is not a regular file"};
}

/// What keeps a file from being opened is no matter of the storage, unless it is missing or another's.
Code code_of_refusal(int number) {
  switch (number) {
    case 0:
    case ENOENT:
    case EACCES:
    case EPERM:
    case EROFS:
      return Code::no_storage;
    default:
      return code_of_number(number);
  }
}

/// SQLite would wait for a FIFO for ever, and calls a link or a directory something else.
Error check_journals(const std::string& file) {
  for (const char* end : {"-journal", "-wal"}) {
    struct stat status = {};
    const std::string journal = file + end;
    if (lstat(journal.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return irregular(journal);
  }
  return {};
}

/// Memory is the one thing whose end is thrown.
void require_memory(int code) {
  if ((code & 0xff) == SQLITE_NOMEM) throw std::bad_alloc();
}

}  // namespace

template <class Bind>
Statement& Statement::attempt(Bind bind) {
  ++bound_;
  if (refused_ != SQLITE_OK) return *this;
  const int code = bind();
  require_memory(code);
  // A parameter that the statement does not have is no matter.
  if (code == SQLITE_TOOBIG) refused_ = code;
  return *this;
}

Statement& Statement::bind(int64 number) {
  return attempt([&] { return sqlite3_bind_int64(statement_.get(), bound_, number); });
}

Statement& Statement::bind(const std::string& text) {
  return attempt([&] {
    return sqlite3_bind_text64(statement_.get(), bound_, text.data(), text.size(), SQLITE_TRANSIENT,
                               SQLITE_UTF8);
  });
}

Statement& Statement::bind(const std::vector<char>& blob) {
  const char* bytes = blob.empty() ? nullptr : blob.data();
  return attempt(
      [&] { return sqlite3_bind_blob64(statement_.get(), bound_, bytes, blob.size(), SQLITE_STATIC); });
}

Statement& Statement::bind(const Digest& digest) {
  return attempt([&] {
    return sqlite3_bind_blob64(statement_.get(), bound_, digest.data(), digest.size(), SQLITE_TRANSIENT);
  });
}

Statement& Statement::bind(const Statement& row, int column) {
  sqlite3_value* value = sqlite3_column_value(row.statement_.get(), column);
  return attempt([&] { return sqlite3_bind_value(statement_.get(), bound_, value); });
}

Statement& Statement::bind_zeros(int64 size) {
  return attempt(
      [&] { return sqlite3_bind_zeroblob64(statement_.get(), bound_, static_cast<sqlite3_uint64>(size)); });
}

Statement& Statement::bind_null() {
  return attempt([&] { return sqlite3_bind_null(statement_.get(), bound_); });
}

bool Statement::run() {
  const bool done = step() == SQLITE_DONE;
  reset();
  return done;
}

void Statement::reset() {
  sqlite3_reset(statement_.get());
  bound_ = 0;
  refused_ = SQLITE_OK;
}

std::string Statement::text(int column) const {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), column));
  const int size = sqlite3_column_bytes(statement_.get(), column);
  return bytes != nullptr ? std::string(bytes, static_cast<std::size_t>(size)) : std::string();
}

std::optional<Digest> Statement::digest(int column) const {
  Digest digest{};
  const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_.get(), column));
  const bool fits = type(column) == SQLITE_BLOB &&
                    sqlite3_column_bytes(statement_.get(), column) == static_cast<int>(digest.size());
  if (!fits) return {};
  std::copy_n(bytes, digest.size(), digest.begin());
  return digest;
}

// SQLite falls back to reading only where it may not write.
Result<Database> Database::open(const std::string& file, std::chrono::milliseconds wait) {
  return open(file, wait, SQLITE_OPEN_READWRITE);
}

Result<Database> Database::open_read_only(const std::string& file, std::chrono::milliseconds wait) {
  return open(file, wait, SQLITE_OPEN_READONLY);
}

Result<Database> Database::open(const std::string& file, std::chrono::milliseconds wait, int flags) {
  struct stat status = {};
  if (stat(file.c_str(), &status) != 0) return Error{Code::no_storage, errno, file, std::strerror(errno)};
  if (!S_ISREG(status.st_mode)) return irregular(file);
  if (Error error = check_journals(file); error.code != Code::ok) return error;

  Database database(file);
  sqlite3* opened = nullptr;
  // SQLite takes ":memory:" and "file:x" for something else than paths.
  const std::string path = file.front() == '/' ? file : "./" + file;
  // A cache that connections of the host share has locks that nobody waits for.
  flags |= SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
  const int code = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
  database.db_.reset(opened);
  if (opened == nullptr) throw std::bad_alloc();
  sqlite3_extended_result_codes(opened, 1);
  if (code != SQLITE_OK) return database.error();
  database.limit_wait(wait);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_limit(opened, SQLITE_LIMIT_ATTACHED, 0);
  if (Error error = database.map_nothing(); error.code != Code::ok) return error;
  return database;
}

/// A host may have chosen for all connections that files are mapped into memory. It would end by a signal
/// when another program cuts such a file off.
Error Database::map_nothing() {
  sqlite3_int64 size = -1;
  sqlite3_file_control(db_.get(), "main", SQLITE_FCNTL_MMAP_SIZE, &size);
  return size > 0 ? run("pragma mmap_size=0") : Error{};
}

void Database::limit_wait(std::chrono::milliseconds wait) {
  *deadline_ = Deadline(wait);
  sqlite3_busy_handler(db_.get(), wait_for_lock, deadline_.get());
}

Result<Statement> Database::prepare(const std::string& text) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v2(db_.get(), text.c_str(), -1, &statement, nullptr);
  if (code != SQLITE_OK) return error();
  return Statement(statement);
}

Error Database::run(const char* text) {
  if (sqlite3_exec(db_.get(), text, nullptr, nullptr, nullptr) == SQLITE_OK) return {};
  Error failure = error();
  if (sqlite3_get_autocommit(db_.get()) == 0)
    sqlite3_exec(db_.get(), "rollback", nullptr, nullptr, nullptr);
  return failure;
}

Error Database::in_transaction(const std::function<Error()>& change) {
  if (Error error = run("begin immediate"); error.code != Code::ok) return error;
  Error error;
  try {
    error = change();
  } catch (...) {
    sqlite3_exec(db_.get(), "rollback", nullptr, nullptr, nullptr);
    throw;
  }
  if (error.code == Code::ok) return run("commit");
  run("rollback");
  return error;
}

Error Database::error() const {
  const int code = sqlite3_extended_errcode(db_.get());
  if (code != SQLITE_TOOBIG) return error(code, sqlite3_errmsg(db_.get()));
  const int most = sqlite3_limit(db_.get(), SQLITE_LIMIT_LENGTH, -1);
  return error(code, "SQLite stores at most " + std::to_string(most) +
                         " bytes in a row; take large files out of the configuration");
}

Error Database::error(int code) const { return error(code, sqlite3_errstr(code)); }

Error Database::error(int code, const std::string& text) const {
  require_memory(code);
  Error found{code_of(code), code, file_, text};
  const bool is_refused = (code & 0xff) == SQLITE_CANTOPEN;
  if (!is_refused && (code & 0xff) != SQLITE_IOERR) return found;
  const int number = sqlite3_system_errno(db_.get());
  if (is_refused) found.code = code_of_refusal(number);
  // A full quota, and a full disk where a file is made, are failures of other names to SQLite.
  if (code_of_number(number) == Code::no_space) found.code = Code::no_space;
  if (is_refused && number != 0) found.text.append(": ").append(std::strerror(number));
  return found;
}

Result<std::unique_ptr<BlobSource>> BlobSource::open(Database& database, const char* column, int64 id) {
  std::unique_ptr<BlobSource> source(new BlobSource(database));
  sqlite3_blob* blob = nullptr;
  const int code = sqlite3_blob_open(database.get(), "main", "Config", column, id, 0, &blob);
  source->blob_.reset(blob);
  if (code != SQLITE_OK) return database.error();
  return source;
}

Result<std::string_view> BlobSource::next() {
  const int left = sqlite3_blob_bytes(blob_.get()) - offset_;
  const int size = std::min(left, static_cast<int>(buffer_.size()));
  if (size <= 0) return std::string_view();
  if (sqlite3_blob_read(blob_.get(), buffer_.data(), size, offset_) != SQLITE_OK) {
    Error error = database_.error();
    // A page of this archive, and not the storage as a whole.
    if (error.code == Code::no_storage) error = {Code::damaged, error.number, "", error.text};
    return error;
  }
  offset_ += size;
  return std::string_view(buffer_.data(), static_cast<std::size_t>(size));
}

}  // namespace ConfSave::snapshots
