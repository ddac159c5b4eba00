#pragma once

#include <sqlite3.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "confsave/snapshots.h"
#include "snapshots/deadline.h"
#include "snapshots/source.h"

namespace ConfSave::snapshots {

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

/// A prepared statement, with its parameters bound by value.
class Statement {
 public:
  explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}

  Statement& bind(int64 number);
  Statement& bind(const std::string& text);
  /// The bytes must outlive the statement. None are NULL.
  Statement& bind(const std::vector<char>& blob);
  Statement& bind(const Digest& digest);
  /// The value that `row` has in this column, whatever its type.
  Statement& bind(const Statement& row, int column);
  /// A blob of so many zeros, to be written piece by piece.
  Statement& bind_zeros(int64 size);
  Statement& bind_null();

  /// SQLITE_ROW, SQLITE_DONE, or SQLite's error, also that of a value that is too large to be bound.
  int step() { return refused_ != SQLITE_OK ? refused_ : sqlite3_step(statement_.get()); }

  /// Runs a statement without a result, to be bound and run again.
  bool run();
  /// Ends what step() began; the parameters can be bound again.
  void reset();

  int type(int column) const { return sqlite3_column_type(statement_.get(), column); }
  int64 number(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  /// Bytes behind a NUL included.
  std::string text(int column) const;
  /// No value if this is no digest.
  std::optional<Digest> digest(int column) const;

 private:
  /// Binds the next value, unless an earlier one was too large: SQLite would store NULL in its place, and
  /// forget why with the next one.
  template <class Bind>
  Statement& attempt(Bind bind);

  std::unique_ptr<sqlite3_stmt, FinalizeStatement> statement_;
  int bound_ = 0;
  int refused_ = SQLITE_OK;  ///< SQLITE_TOOBIG after a value that is too large
};

/// A connection of our own to an SQLite file that nobody vouches for: its schema may not run functions with
/// side effects, cannot be damaged by a statement, and no lock is waited for longer than `wait`.
class Database {
 public:
  /// Opens an existing file for reading; writes only to roll back what a killed process left. The error of
  /// a missing file has the number ENOENT.
  static Result<Database> open(const std::string& file, std::chrono::milliseconds wait);

  /// The same without ever writing: what a killed process left is an error.
  static Result<Database> open_read_only(const std::string& file, std::chrono::milliseconds wait);

  Result<Statement> prepare(const std::string& text);

  /// Runs statements without a result. If one fails, rolls back the transaction that is open, also one
  /// that was begun before.
  Error run(const char* text);

  /// Makes what is committed from now on last: by default SQLite does not sync the deletion of its
  /// journal, which a power cut could bring back.
  Error sync_deletions() { return run("pragma synchronous=extra"); }

  /// Runs `change` while nobody else can write. Commits, unless it fails.
  Error in_transaction(const std::function<Error()>& change);

  /// From now on all waits for locks take no longer than `wait` together.
  void limit_wait(std::chrono::milliseconds wait);

  /// The error of the last call that failed.
  Error error() const;
  /// The error of a function whose failure the connection does not note.
  Error error(int code) const;

  sqlite3* get() const { return db_.get(); }
  const std::string& file() const { return file_; }

 private:
  struct Close {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
  };

  explicit Database(std::string file) : file_(std::move(file)) {}

  static Result<Database> open(const std::string& file, std::chrono::milliseconds wait, int flags);
  Error map_nothing();
  Error error(int code, const std::string& text) const;

  std::string file_;
  std::unique_ptr<Deadline> deadline_ = std::make_unique<Deadline>(std::chrono::milliseconds(0));
  std::unique_ptr<sqlite3, Close> db_;
};

/// The bytes of a blob, read piece by piece.
class BlobSource : public Source {
 public:
  /// Column `column` of the row `id` of 'Config'. The database must outlive this object.
  static Result<std::unique_ptr<BlobSource>> open(Database& database, const char* column, int64 id);

  Result<std::string_view> next() override;

 private:
  struct Close {
    void operator()(sqlite3_blob* blob) const { sqlite3_blob_close(blob); }
  };

  explicit BlobSource(Database& database) : database_(database), buffer_(64 << 10, '\0') {}

  Database& database_;
  std::unique_ptr<sqlite3_blob, Close> blob_;
  std::string buffer_;
  int offset_ = 0;
};

}  // namespace ConfSave::snapshots
