#include "storage/sqlite.h"

#include "log.h"

namespace ConfSave::sql {

int prepare(sqlite3* db, const std::string& text, Statement& statement) {
  sqlite3_stmt* prepared = nullptr;
  const int code = sqlite3_prepare_v2(db, text.c_str(), -1, &prepared, nullptr);
  statement.reset(prepared);
  return code;
}

int run(sqlite3* db, const std::string& text, RowCallback callback, void* context, ErrorText& error) {
  char* message = nullptr;
  const int code = sqlite3_exec(db, text.c_str(), callback, context, &message);
  error.reset(message);
  return code;
}

void execute(sqlite3* db, const std::string& text, const ClUnilogFname& function, RowCallback callback,
             void* context, int line) {
  ErrorText error;
  const int code = run(db, text, callback, context, error);
  if (code != SQLITE_OK) report_error(function, error.get(), text, code, line);
}

void report_error(const ClUnilogFname& function, const char* error, const std::string& text, int code,
                  int line) {
  if (KovrLogHelper record{2, function, kSource, "SQL error: ", line}) {
    record << error << ". Query: " << text << " (return code: " << code << ")";
  }
}

}  // namespace ConfSave::sql
