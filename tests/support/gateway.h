#pragma once

// A gateway of its own for each test: a configuration directory, a state directory for "storage.db", a
// scratch directory and an empty "/mnt/main/etc/", all empty at first and gone afterwards.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "confsave.h"
#include "support/expected.h"
#include "support/test_host.h"

namespace test {

/// 4.5.4 as a number, written out: the tests do not take the library's word for it.
constexpr ConfSave::int64 kCurrent = 17264017408;

class Gateway : public testing::Test {
 protected:
  Gateway();
  /// Fails the test when a temporary file or a scratch directory was left behind.
  ~Gateway() override;

  TestHost& host = TestHost::instance();

  const std::string& root() const { return root_; }
  /// Ends in "/".
  std::string config_dir() const { return root_ + "/config/"; }
  std::string state_dir() const { return root_ + "/state"; }
  std::string scratch_dir() const { return root_ + "/scratch"; }
  std::string database() const { return state_dir() + "/storage.db"; }
  /// The fixed failover directory, ending in "/".
  static std::string etc_dir() { return "/mnt/main/etc/"; }

  /// Files of every kind that a full snapshot packs, the configuration database and the failover
  /// settings included, each with its own content, mode and time.
  void make_configuration();

  /// The names that the test's scratch directory holds.
  Texts scratch_files() const;

  /// The files of this gateway that this process has open.
  Texts open_files() const;

  /// What was logged, with "<now>" for the time.
  LogRecords records() const;

  /// The commands that were run, without the parts of paths that differ from run to run: "<root>" is the
  /// gateway's, "<archive>" a temporary file, "<scratch>" the name of a scratch directory.
  Texts commands() const;

  /// What a query of the test's own finds, with "<now>" for the time.
  Rows query(const std::string& sql) const;

  /// With "<now>" for every time since the test began.
  std::string without_now(std::string text) const;
  Texts without_now(Texts texts) const;

  const std::time_t started = std::time(nullptr);

 private:
  std::string root_;
};

// Files. Each throws std::runtime_error when it cannot do what it says.

void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);
bool exists(const std::string& path);
/// Relative path -> content of every regular file below `dir`.
std::map<std::string, std::string> tree(const std::string& dir);
/// The names in `dir`, sorted.
Texts names_in(const std::string& dir);
/// The members of a gzip tar archive, in its order, as `tar tzf` lists them.
Texts members(const std::vector<char>& archive);
/// A gzip tar archive of `names` in `dir`, made by the real tar.
std::vector<char> make_archive(const std::string& dir, const std::string& names);
/// Runs a shell command for the test itself, past the host's records.
int shell(const std::string& command);

/// The test's own connection to a database, which no StatementRecorder minds.
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

/// Puts a row into the table past the library.
struct RowSpec {
  std::string name;
  ConfSave::int64 version = 0;
  int type = 1;
  std::string save_time = "1000";
  std::string load_time = "NULL";
  std::string keybase = "x'00'";
  std::string etc = "x'00'";
};
void insert_row(const std::string& database, const RowSpec& row);

/// While it lives, notes the text of every statement that any connection opened since then runs.
class StatementRecorder {
 public:
  StatementRecorder();
  StatementRecorder(const StatementRecorder&) = delete;
  StatementRecorder& operator=(const StatementRecorder&) = delete;
  ~StatementRecorder();

  const Texts& statements() const;
  void clear();
  /// The connection that was opened last.
  sqlite3* connection() const;
};

/// True if a separate process gets the exclusive lock at once.
bool lock_is_free(const std::string& database);

/// A separate process that holds the exclusive lock for some time, or until this object is destroyed.
class LockHolder {
 public:
  /// Returns when the lock is held.
  LockHolder(const std::string& database, int milliseconds);
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;
  ~LockHolder();

 private:
  int pid_ = -1;
};

/// Calls `call`; what it throws must be exactly an `Exception` (no class derived from it). Hands it out.
template <class Exception, class Call>
Exception thrown_by(Call call) {
  try {
    call();
  } catch (const Exception& error) {
    EXPECT_EQ(typeid(error), typeid(Exception)) << typeid(error).name();
    return error;
  }
  throw std::runtime_error(std::string("nothing of type ") + typeid(Exception).name() + " was thrown");
}

}  // namespace test
