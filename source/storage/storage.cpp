#include "confsave.h"

#include <sqlite3.h>

#include <climits>
#include <cstring>
#include <utility>

#include "kelmor/paths.h"
#include "log.h"
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

/// Null when the file cannot be opened. A competing process is waited for, practically without end.
sqlite3* open_database() {
  sqlite3* db = nullptr;
  const int code = sqlite3_open(database_file().c_str(), &db);
  if (code == SQLITE_OK) {
    sqlite3_busy_timeout(db, INT_MAX);
    return db;
  }
  if (KovrLogHelper record{1, kStorage, sql::kSource, "Can't open database: "}) {
    record << sqlite3_errmsg(db) << " (return code: " << code << ")\n";
  }
  // SQLite hands out a connection even then, to ask it for the message.
  sqlite3_close(db);
  return nullptr;
}

/// Makes the table. That it is there already is the normal case, told by SQLite's message.
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

Storage::Storage(std::string configuration_directory)
    : opened(false), config_path(std::move(configuration_directory)), db(nullptr) {}

// Delegates, so that the destructor runs and closes the connection should anything below throw.
Storage::Storage() : Storage(toolsunix::FilenameConvertor::Instance().GetKelmorConfigPath()) {
  db = open_database();
  if (db == nullptr) return;
  create_table(db);
  opened = true;
}

Storage::~Storage() { sqlite3_close(db); }

void Storage::Begin() { sql::execute(db, "begin exclusive", kBegin); }

void Storage::Commit() { sql::execute(db, "commit", kCommit); }

}  // namespace ConfSave
