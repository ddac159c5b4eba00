#pragma once

// The statements that the storage runs, what it does when SQLite refuses one, and the owners of what
// SQLite hands out.

#include <sqlite3.h>

#include <memory>
#include <string>

#include "confsave.h"
#include "kelmor/log.h"

namespace ConfSave::sql {

/// What every log record of the storage names as its source.
constexpr const char* kSource = "source/storage";

// Texts, to the blank. Names, patterns and orders are pasted as they come; numbers are decimal under any
// locale. // Quirk Q6, Q54

std::string create_table();
/// What SQLite says when create_table() finds the table there.
std::string table_exists_error();
std::string count_rows(const std::string& name, int64 version);
std::string delete_row(const std::string& name, int64 version);
/// Parameter 1 is the keybase archive, parameter 2 the etc archive.
std::string insert_row(const std::string& name, int64 version, int64 save_time, conftype type);
std::string select_row(const std::string& name, int64 version, bool skip_corlu);
std::string stamp_load_time(int64 id, int64 load_time);
std::string list_rows(int64 version, const std::string& order_by, bool skip_corlu);
std::string find_rows(const std::string& pattern, int64 version, bool skip_corlu);

// Owners.

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

struct FreeText {
  void operator()(char* text) const { sqlite3_free(text); }
};
using ErrorText = std::unique_ptr<char, FreeText>;

// Running.

/// Prepares `text` into `statement`, which is null when there is none. Returns SQLite's code.
int prepare(sqlite3* db, const std::string& text, Statement& statement);

using RowCallback = int (*)(void* context, int columns, char** values, char** names);

/// Runs `text`. Returns SQLite's code, and its message, if any, in `error`.
int run(sqlite3* db, const std::string& text, RowCallback callback, void* context, ErrorText& error);

/// Runs `text` and reports a refusal as coming from `function`, which goes on. // Quirk Q10
void execute(sqlite3* db, const std::string& text, const ClUnilogFname& function,
             RowCallback callback = nullptr, void* context = nullptr, int line = __builtin_LINE());

/// The one report of a refused statement: a record of level 2.
void report_error(const ClUnilogFname& function, const char* error, const std::string& text, int code,
                  int line = __builtin_LINE());

}  // namespace ConfSave::sql
