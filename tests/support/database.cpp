#include "support/database.h"

#include <mutex>
#include <stdexcept>

namespace test {
namespace {

int record_statement(unsigned, void*, void*, void* text) {
  const std::string statement = static_cast<const char*>(text);
  // The statements of a trigger are reported as comments.
  if (statement.compare(0, 2, "--") == 0) return 0;
  // Several threads have connections.
  static std::mutex recording;
  const std::lock_guard lock(recording);
  StatementRecorder::recorded.push_back(statement);
  return 0;
}

int watch_connection(sqlite3* db, const char**, const sqlite3_api_routines*) {
  StatementRecorder::last_connection = db;
  return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, record_statement, nullptr);
}

using Extension = void (*)();
const auto kExtension = reinterpret_cast<Extension>(watch_connection);

}  // namespace

Database::Database(const std::string& file) {
  sqlite3* const watched = StatementRecorder::last_connection;
  const int code = sqlite3_open(file.c_str(), &db_);
  StatementRecorder::last_connection = watched;
  if (code == SQLITE_OK) {
    sqlite3_trace_v2(db_, 0, nullptr, nullptr);
    return;
  }
  sqlite3_close(db_);
  throw std::runtime_error("cannot open " + file);
}

Database::~Database() { sqlite3_close(db_); }

Rows Database::query(const std::string& sql) const {
  Rows rows;
  const auto append = [](void* context, int columns, char** values, char**) {
    Texts row;
    for (int i = 0; i < columns; ++i) row.emplace_back(values[i] != nullptr ? values[i] : "NULL");
    static_cast<Rows*>(context)->push_back(row);
    return 0;
  };
  char* message = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), append, &rows, &message) != SQLITE_OK) {
    const std::string text = message != nullptr ? message : "unknown";
    sqlite3_free(message);
    throw std::runtime_error(sql + ": " + text);
  }
  return rows;
}

std::string Database::value(const std::string& sql) const { return query(sql).at(0).at(0); }

void insert_row(const std::string& database, const RowSpec& row) {
  Database(database).run(
      "insert into 'Config' (name,version,keybase,etc,type,save_time,load_time) values ('" + row.name +
      "'," + std::to_string(row.version) + "," + row.keybase + "," + row.etc + "," +
      std::to_string(row.type) + "," + row.save_time + "," + row.load_time + ")");
}

StatementRecorder::StatementRecorder() {
  recorded.clear();
  sqlite3_auto_extension(kExtension);
}

StatementRecorder::~StatementRecorder() {
  sqlite3_cancel_auto_extension(kExtension);
  last_connection = nullptr;
}

}  // namespace test
