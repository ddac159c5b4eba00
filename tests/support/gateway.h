#pragma once

// A gateway of its own for each test: a configuration directory, a state directory for "storage.db", a
// temporary directory and a failover directory, all empty at first and removed afterwards. With it come
// the headers that most tests need.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "support/database.h"
#include "support/expected.h"
#include "support/files.h"
#include "support/process.h"
#include "support/test_host.h"
#include "support/throwing.h"

namespace test {

/// Sets the time zone of the process.
void set_zone(const char* name);

struct Gateway : testing::Test {
  Gateway();
  /// Fails the test if a temporary file or a scratch directory is left.
  ~Gateway() override;

  TestHost& host = TestHost::instance();

  const std::string& root() const { return root_; }
  /// Ends in "/".
  std::string config_dir() const { return root_ + "/config/"; }
  std::string state_dir() const { return root_ + "/state"; }
  /// The directory for temporary files.
  std::string temp_dir() const { return root_ + "/temp"; }
  std::string database() const { return state_dir() + "/storage.db"; }
  /// The fixed failover directory, ending in "/".
  static std::string etc_dir() { return "/mnt/main/etc/"; }

  /// Makes all files of a full snapshot, those of the configuration database and the failover files
  /// included, each with its own content, mode and time.
  void make_configuration() const;

  /// Waits so long that no file can change again with the same times.
  static void let_the_files_grow_old();

  /// The names in the temporary directory.
  Texts temp_files() const;

  /// The files of this gateway that this process has open.
  Texts open_files() const;

  /// Makes every attempt to open the storage fail.
  void make_storage_unopenable() const;

  /// Makes a storage that SQLite opens and then finds to be no database.
  void damage_database();

  /// Makes the table, empty.
  void make_table() const { Database(database()).run(kCreateTable); }

  /// Inserts a row without the library; makes the table first if there is no storage.
  void put(const RowSpec& row) const;

  /// Makes SQLite refuse every delete.
  void keep_all_rows() const;

  /// Makes the host's log throw once, when `function` begins its next record.
  void fail_in_log(const std::string& function, Raise raise);

  /// Checks that nothing is left behind: no temporary file, no lock, no damage to the storage.
  void expect_nothing_held() const;

  /// The log, with "<now>" for the time.
  LogRecords records() const;

  /// The commands, with "<root>" for the gateway's directory, "<archive>" for a temporary file and
  /// "<scratch>" for the name of a scratch directory.
  Texts commands() const;

  /// The statements, with "<now>" for the time.
  Texts statements() const { return without_now(recorder.statements()); }

  /// Forgets the statements, log records and commands until now.
  void forget();

  /// The result of a query of the test's own, with "<now>" for the time.
  Rows query(const std::string& sql) const;

  /// All rows: id, name, version, type, save_time, load_time.
  Rows rows() const {
    return query("select id, name, version, type, save_time, load_time from Config order by rowid");
  }

  /// The text with "<now>" for every time since the test began.
  virtual std::string without_now(std::string text) const;
  Texts without_now(Texts texts) const;

  StatementRecorder recorder;
  const std::time_t started = std::time(nullptr);

 private:
  std::string root_;
  bool damaged_ = false;
};

}  // namespace test
