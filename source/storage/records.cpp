#include "confsave.h"

#include <sqlite3.h>

#include <cstdlib>
#include <ctime>
#include <vector>

#include "integers.h"
#include "log.h"
#include "storage/sqlite.h"
#include "storage/statements.h"
#include "throw.h"

namespace ConfSave {
namespace {

const ClUnilogFname kExists{"bool ConfSave::Storage::Exists(const string&, int64)", "Exists"};
const ClUnilogFname kCreate{"void ConfSave::Storage::Create(const string&, ConfSave::conftype, int64)",
                            "Create"};
const ClUnilogFname kUpdate{"void ConfSave::Storage::Update(const string&, ConfSave::conftype, int64)",
                            "Update"};
const ClUnilogFname kDelete{"void ConfSave::Storage::Delete(const string&, int64)", "Delete"};

/// Owns the bytes of the two archives while a statement uses them.
struct Packed {
  explicit Packed(const Archive& archive) { archive.Fetch(etc, keybase); }

  std::vector<char> etc;
  std::vector<char> keybase;
};

int take_count(void* context, int, char** values, char**) {
  const char* text = values[0];
  *static_cast<int*>(context) = text != nullptr ? low32(std::strtol(text, nullptr, 10)) : 0;
  return 0;
}

/// Codes that are not a refusal.
bool is_fine(int code) { return code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE; }

/// The bytes must outlive the statement. One read() fetched them, so that their size fits into an int. An
/// empty archive is stored as NULL; so is one that SQLite refuses, unreported. // Quirk Q14, Q62
void bind_archive(sqlite3_stmt* statement, int index, const std::vector<char>& archive) {
  sqlite3_bind_blob(statement, index, archive.empty() ? nullptr : archive.data(),
                    static_cast<int>(archive.size()), SQLITE_STATIC);
}

/// SQLite's codes for an insert. Without a statement nothing ran.
struct Insertion {
  bool ran = false;
  int stepped = SQLITE_OK;
  int finalized = SQLITE_OK;
};

/// Runs `text` and reports what SQLite refuses.
Insertion insert(sqlite3* db, const std::string& text, const Packed& packed,
                 const ClUnilogFname& function) {
  sql::Statement statement;
  const int prepared = sql::prepare(db, text, statement);
  if (!is_fine(prepared)) sql::report_error(function, sqlite3_errmsg(db), text, prepared);
  if (statement == nullptr) {
    log_text(1, function, sql::kSource, "Error: sqlite3_stmt *plineInfo == NULL");
    return {};
  }
  bind_archive(statement.get(), 1, packed.keybase);
  bind_archive(statement.get(), 2, packed.etc);
  const int stepped = sqlite3_step(statement.get());
  if (!is_fine(stepped)) sql::report_error(function, sqlite3_errmsg(db), text, stepped);
  return {true, stepped, sqlite3_finalize(statement.release())};
}

void log_total_changes(sqlite3* db, const ClUnilogFname& function) {
  if (KovrLogHelper record{4, function, sql::kSource, "sqlite3_total_changes: "}) {
    record << sqlite3_total_changes(db);
  }
}

}  // namespace

bool Storage::Exists(const std::string& name, int64 version) {
  if (!opened) return false;
  // Unchanged when the query fails, and then the row counts as existing. // Quirk Q12
  int count = -1;
  sql::execute(db, sql::count_rows(name, version), kExists, take_count, &count);
  return count != 0;
}

void Storage::Delete(const std::string& name, int64 version) {
  if (!opened) return;
  if (KovrLogHelper record{4, kDelete, sql::kSource, "config name '"}) record << name << "'";
  sql::execute(db, sql::delete_row(name, version), kDelete);
}

void Storage::Create(const std::string& name, conftype type, int64 version) {
  if (!opened) return;
  Archive archive(type, config_path);
  archive.Create();
  if (KovrLogHelper record{2, kCreate, sql::kSource, "Try to save configuration '"}) {
    record << name << "' (version " << version << ")";
  }
  const Packed packed(archive);
  const std::string text = sql::insert_row(name, version, std::time(nullptr), type);

  const Insertion insertion = insert(db, text, packed, kCreate);
  if (!insertion.ran) return;
  if (insertion.finalized != SQLITE_OK) {
    if (KovrLogHelper record{1, kCreate, sql::kSource, "sqlite3_finalize() return code "}) {
      record << insertion.finalized;
    }
  }
  if (insertion.stepped == SQLITE_CONSTRAINT) {
    const std::string message =
        "Configuration '" + name + "' (version " + Config::version(version) + ") already exists";
    throw_text<XConstraint>(status_none, message.c_str());
  }
  log_total_changes(db, kCreate);
}

void Storage::Update(const std::string& name, conftype type, int64 version) {
  if (!opened) return;
  Archive archive(type, config_path);
  archive.Create();
  if (KovrLogHelper record{2, kUpdate, sql::kSource, "Try to update configuration '"}) {
    record << name << "' (version " << version << ")";
  }
  const Packed packed(archive);
  sql::execute(db, sql::delete_row(name, version), kUpdate);
  const std::string text = sql::insert_row(name, version, std::time(nullptr), type);

  // A refusal is only logged, even of a taken name. // Quirk Q13, Q64
  if (insert(db, text, packed, kUpdate).ran) log_total_changes(db, kUpdate);
}

}  // namespace ConfSave
