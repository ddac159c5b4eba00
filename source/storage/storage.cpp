#include "confsave.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <climits>
#include <cstring>

#include "log.h"
#include "places.h"
#include "storage/authorizer.h"
#include "storage/sqlite.h"
#include "storage/statements.h"

namespace ConfSave {
namespace {

const ClUnilogFname kStorage{"ConfSave::Storage::Storage()", "Storage"};
const ClUnilogFname kBegin{"void ConfSave::Storage::Begin()", "Begin"};
const ClUnilogFname kCommit{"void ConfSave::Storage::Commit()", "Commit"};

/// Null when the file cannot be opened. Waits for a competing process, practically without end. The log
/// record ends in a line feed. // Quirk Q9, Q11
sql::Database open_database(const std::string& file) {
  sqlite3* opened = nullptr;
  const int code = sqlite3_open(file.c_str(), &opened);
  // SQLite returns a connection even when it fails, which has the message.
  sql::Database db(opened);
  if (code == SQLITE_OK) {
    sqlite3_busy_timeout(db.get(), INT_MAX);
    return db;
  }
  if (KovrLogHelper record{1, kStorage, sql::kSource, "Can't open database: "}) {
    record << sqlite3_errmsg(db.get()) << " (return code: " << code << ")\n";
  }
  return nullptr;
}

/// Only in an empty file: elsewhere the pragma would be a write. Failure is ignored: only speed depends on
/// it.
void choose_layout(sqlite3* db, const std::string& file) {
  struct stat status = {};
  if (stat(file.c_str(), &status) != 0 || status.st_size != 0) return;
  sqlite3_exec(db, sql::kChooseLayout, nullptr, nullptr, nullptr);
}

/// Makes the table. It normally exists already, which only SQLite's message says. The last record is
/// written in any case. // Quirk Q7, Q8
void create_table(sqlite3* db, const std::string& file) {
  // Before anything that can wait for a lock.
  log_text(4, kStorage, sql::kSource, "Try create storage tables");
  choose_layout(db, file);
  sql::install_authorizer(db);
  const std::string statement = sql::create_table();
  sql::ErrorText error;
  const int code = sql::run(db, statement, nullptr, nullptr, error);
  if (code != SQLITE_OK &&
      (error == nullptr || std::strcmp(sql::table_exists_error().c_str(), error.get()) != 0)) {
    sql::report_error(kStorage, error.get(), statement, code);
  }
  log_text(4, kStorage, sql::kSource, "storage tables successfully created");
}

}  // namespace

Storage::Storage() : opened(false), config_path(config_directory()), db(nullptr) {
  const std::string file = storage_file();
  sql::Database connection = open_database(file);
  if (connection == nullptr) return;
  create_table(connection.get(), file);
  db = connection.release();
  opened = true;
}

Storage::~Storage() { sqlite3_close(db); }

void Storage::Begin() { sql::execute(db, "begin exclusive", kBegin); }

void Storage::Commit() { sql::execute(db, "commit", kCommit); }

}  // namespace ConfSave
