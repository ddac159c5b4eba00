#include "confsave.h"

#include <sqlite3.h>

#include <cstdlib>
#include <exception>
#include <new>
#include <stdexcept>
#include <utility>

#include "integers.h"
#include "log.h"
#include "storage/sqlite.h"
#include "storage/statements.h"

namespace ConfSave {
namespace {

const ClUnilogFname kList{"Configs ConfSave::Storage::List(int64, const string&, bool)", "List"};
const ClUnilogFname kFindMatching{"Configs ConfSave::Storage::FindMatching(const string&, int64, bool)",
                                  "FindMatching"};

/// The table does not allow a row without a name; a foreign table may.
std::string name_from(const char* text) {
  if (text == nullptr) throw std::logic_error("stored configuration without a name");
  return text;
}

// List() reads typed columns, FindMatching() texts, and they differ in what NULL means. Times are 32-bit
// in both. // Quirk Q18, Q19

Config read_row(sqlite3_stmt* statement) {
  Config config(sqlite3_column_int64(statement, 1));
  config.name = name_from(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
  config.type = static_cast<conftype>(sqlite3_column_int(statement, 2));
  config.save_time = sqlite3_column_int(statement, 3);
  config.load_time = sqlite3_column_int(statement, 4);
  return config;
}

/// An error ends the list like the end of the rows. // Quirk Q20
Configs read_rows(sql::Statement statement, int64 version) {
  Configs result;
  while (sqlite3_step(statement.get()) == SQLITE_ROW) result.push_back(read_row(statement.get()));
  statement.reset();
  if (result.empty()) {
    if (KovrLogHelper record{2, kList, sql::kSource, "Requested configuration list is empty (version="}) {
      record << version << ")";
    }
  }
  return result;
}

std::int32_t number32(const char* text, std::int32_t for_null) {
  return text != nullptr ? low32(std::strtol(text, nullptr, 10)) : for_null;
}

int64 number64(const char* text, int64 for_null) {
  return text != nullptr ? std::strtoll(text, nullptr, 10) : for_null;
}

Config read_texts(char** values) {
  Config config(number64(values[3], -1));
  config.name = name_from(values[1]);
  config.type = static_cast<conftype>(number32(values[2], -1));
  config.save_time = number32(values[4], 0);
  config.load_time = number32(values[5], 0);
  return config;
}

struct Matches {
  Configs rows;
  std::exception_ptr out_of_memory;
};

/// No exception may cross SQLite. A failure stops the query, which SQLite then reports as aborted.
int append_row(void* context, int columns, char** values, char**) noexcept {
  constexpr int kColumns = 6;
  if (columns < kColumns) return 1;
  auto& matches = *static_cast<Matches*>(context);
  try {
    matches.rows.push_back(read_texts(values));
    return 0;
  } catch (const std::bad_alloc&) {
    matches.out_of_memory = std::current_exception();
  } catch (const std::exception&) {
    // Invalid row: only SQLite's abort is logged.
  }
  return 1;
}

}  // namespace

Configs Storage::List(int64 version, const std::string& order_by, bool skip_corlu) {
  if (!opened) return {};
  const std::string text = sql::list_rows(version, order_by, skip_corlu);
  sql::Statement statement;
  const int code = sql::prepare(db, text, statement);
  if (code == SQLITE_OK && statement != nullptr) return read_rows(std::move(statement), version);
  if (code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE) {
    sql::report_error(kList, sqlite3_errmsg(db), text, code);
  }
  return {};
}

// Does not look at `opened`: without a connection SQLite refuses the statement. // Quirk Q21
Configs Storage::FindMatching(const std::string& pattern, int64 version, bool skip_corlu) {
  Matches found;
  sql::execute(db, sql::find_rows(pattern, version, skip_corlu), kFindMatching, append_row, &found);
  // If rows were missing, one of several matches could pass for the only one and be restored.
  if (found.out_of_memory) std::rethrow_exception(found.out_of_memory);
  return std::move(found.rows);
}

}  // namespace ConfSave
