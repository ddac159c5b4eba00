#pragma once

// The owners of SQLite's resources, and how the storage prepares and runs a statement.

#include <sqlite3.h>

#include <memory>
#include <string>

#include "kelmor/log.h"

namespace ConfSave::sql {

/// The source that every log record of the storage names.
constexpr const char* kSource = "source/storage";

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

struct FreeText {
  void operator()(char* text) const { sqlite3_free(text); }
};
using ErrorText = std::unique_ptr<char, FreeText>;

/// Prepares `text` into `statement`, null when SQLite makes none. Returns SQLite's code.
int prepare(sqlite3* db, const std::string& text, Statement& statement);

using RowCallback = int (*)(void* context, int columns, char** values, char** names);

/// Runs `text`. Returns SQLite's code, and its message, if any, in `error`.
int run(sqlite3* db, const std::string& text, RowCallback callback, void* context, ErrorText& error);

/// Runs `text`. A refusal is logged in the name of `function` and not thrown. // Quirk Q10
void execute(sqlite3* db, const std::string& text, const ClUnilogFname& function,
             RowCallback callback = nullptr, void* context = nullptr, int line = __builtin_LINE());

/// The report of a refused statement: a log record of level 2.
void report_error(const ClUnilogFname& function, const char* error, const std::string& text, int code,
                  int line = __builtin_LINE());

}  // namespace ConfSave::sql
