#include "confsave.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <climits>
#include <cstring>
#include <memory>

#include "kelmor/paths.h"
#include "log.h"
#include "storage/guard.h"
#include "storage/sql.h"

namespace ConfSave {
namespace {

const ClUnilogFname kStorage{"ConfSave::Storage::Storage()", "Storage"};
const ClUnilogFname kBegin{"void ConfSave::Storage::Begin()", "Begin"};
const ClUnilogFname kCommit{"void ConfSave::Storage::Commit()", "Commit"};

std::string database_file() {
  const auto& paths = toolsunix::FilenameConvertor::Instance();
  return paths.GetFullDynamicDirName(toolsunix::path::DynamicDirectoryId{1}) + "/storage.db";
}

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

/// Where nothing is stored yet, asks for the layout in which SQLite knows where each page belongs: it then
/// skips the archives of the rows that it lists, instead of following them page by page. On a file with
/// pages the same question would be a write. Never told: without it everything works, only slower.
void choose_layout(sqlite3* db, const std::string& file) {
  struct stat status = {};
  if (stat(file.c_str(), &status) != 0 || status.st_size != 0) return;
  sqlite3_exec(db, "pragma auto_vacuum=incremental", nullptr, nullptr, nullptr);
}

/// Null when the file cannot be opened. A competing process is waited for, practically without end.
/// The record ends in a line feed. // Quirk Q9, Q11
Database open_database() {
  const std::string file = database_file();
  sqlite3* opened = nullptr;
  const int code = sqlite3_open(file.c_str(), &opened);
  // SQLite hands out a connection even when it fails, to ask it for the message.
  Database db(opened);
  if (code == SQLITE_OK) {
    sqlite3_busy_timeout(db.get(), INT_MAX);
    choose_layout(db.get(), file);
    sql::guard(db.get());
    return db;
  }
  if (KovrLogHelper record{1, kStorage, sql::kSource, "Can't open database: "}) {
    record << sqlite3_errmsg(db.get()) << " (return code: " << code << ")\n";
  }
  return nullptr;
}

/// Makes the table. That it is there already is the normal case, told by SQLite's message, and the last
/// record is written in any case. // Quirk Q7, Q8
void create_table(sqlite3* db) {
  log_text(4, kStorage, sql::kSource, "Try create storage tables");
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

Storage::Storage()
    : opened(false),
      config_path(toolsunix::FilenameConvertor::Instance().GetKelmorConfigPath()),
      db(nullptr) {
  Database connection = open_database();
  if (connection == nullptr) return;
  create_table(connection.get());
  db = connection.release();
  opened = true;
}

Storage::~Storage() { sqlite3_close(db); }

void Storage::Begin() { sql::execute(db, "begin exclusive", kBegin); }

void Storage::Commit() { sql::execute(db, "commit", kCommit); }

}  // namespace ConfSave
