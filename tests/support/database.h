#pragma once

// The tests' own access to the storage's file, and the statements that the library runs in it.

#include <sqlite3.h>

#include <atomic>
#include <string>

#include "confsave.h"
#include "support/expected.h"

namespace test {

/// A connection of the test's own, which no StatementRecorder watches.
class Database {
 public:
  explicit Database(const std::string& file);
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  ~Database();

  sqlite3* get() const { return db_; }

  /// Rows of texts; NULL is "NULL". Throws std::runtime_error with SQLite's message.
  Rows query(const std::string& sql) const;
  /// The first column of the first row.
  std::string value(const std::string& sql) const;
  void run(const std::string& sql) const { query(sql); }

 private:
  sqlite3* db_ = nullptr;
};

/// A row of the table; the blobs and times are SQL literals.
struct RowSpec {
  std::string name;
  ConfSave::int64 version = 0;
  int type = 1;
  std::string save_time = "1000";
  std::string load_time = "NULL";
  std::string keybase = "x'00'";
  std::string etc = "x'00'";
};
/// Inserts the row without the library.
void insert_row(const std::string& database, const RowSpec& row);

/// While it lives, records the text of every statement on every connection opened since then.
class StatementRecorder {
 public:
  StatementRecorder();
  StatementRecorder(const StatementRecorder&) = delete;
  StatementRecorder& operator=(const StatementRecorder&) = delete;
  ~StatementRecorder();

  const Texts& statements() const { return recorded; }
  void clear() { recorded.clear(); }
  /// The latest connection.
  sqlite3* connection() const { return last_connection; }

  static inline Texts recorded;
  static inline std::atomic<sqlite3*> last_connection = nullptr;
};

}  // namespace test
