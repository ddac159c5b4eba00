#include "confsave.h"

#include <sqlite3.h>

#include <cstdlib>
#include <ctime>
#include <vector>

#include "integers.h"
#include "log.h"
#include "storage/sql.h"
#include "throw.h"

namespace ConfSave {
namespace {

const ClUnilogFname kExists{"bool ConfSave::Storage::Exists(const string&, int64)", "Exists"};
const ClUnilogFname kCreate{"void ConfSave::Storage::Create(const string&, ConfSave::conftype, int64)",
                            "Create"};
const ClUnilogFname kUpdate{"void ConfSave::Storage::Update(const string&, ConfSave::conftype, int64)",
                            "Update"};
const ClUnilogFname kDelete{"void ConfSave::Storage::Delete(const string&, int64)", "Delete"};

/// The two archives of one configuration, for as long as a statement needs their bytes.
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

/// Results that are no refusal.
bool is_fine(int code) { return code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE; }

/// SQLite does not copy the bytes, so they must outlive the statement. An empty archive becomes NULL
/// and not an empty blob, whatever its vector points to. // Quirk Q14
/// One read() fetched the archive, which is why its size fits into an int.
int bind_archive(sqlite3_stmt* statement, int index, const std::vector<char>& archive) {
  return sqlite3_bind_blob(statement, index, archive.empty() ? nullptr : archive.data(),
                           static_cast<int>(archive.size()), SQLITE_STATIC);
}

/// A row whose archive SQLite would not take, for its size, could not be restored: it is not stored. That
/// a name left no parameter to bind to is the name's doing.
bool is_lost(int code) { return code != SQLITE_OK && code != SQLITE_RANGE; }

int bind_and_step(sqlite3_stmt* statement, const Packed& packed) {
  const int keybase = bind_archive(statement, 1, packed.keybase);
  if (is_lost(keybase)) return keybase;
  const int etc = bind_archive(statement, 2, packed.etc);
  if (is_lost(etc)) return etc;
  return sqlite3_step(statement);
}

/// Prepares `text` into `statement` and runs it, reporting what SQLite refuses. Returns the result of
/// the step; without a statement there was none.
int insert(sqlite3* db, const std::string& text, const Packed& packed, const ClUnilogFname& function,
           sql::Statement& statement) {
  const int prepared = sql::prepare(db, text, statement);
  if (!is_fine(prepared)) sql::report_error(function, sqlite3_errmsg(db), text, prepared);
  if (statement == nullptr) {
    log_text(1, function, sql::kSource, "Error: sqlite3_stmt *plineInfo == NULL");
    return prepared;
  }
  const int stepped = bind_and_step(statement.get(), packed);
  if (!is_fine(stepped)) sql::report_error(function, sqlite3_errmsg(db), text, stepped);
  return stepped;
}

void log_total_changes(sqlite3* db, const ClUnilogFname& function) {
  if (KovrLogHelper record{4, function, sql::kSource, "sqlite3_total_changes: "}) {
    record << sqlite3_total_changes(db);
  }
}

}  // namespace

bool Storage::Exists(const std::string& name, int64 version) {
  if (!opened) return false;
  // Stays when the query fails, and then counts as "exists". // Quirk Q12
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

  sql::Statement statement;
  const int stepped = insert(db, text, packed, kCreate, statement);
  if (statement == nullptr) return;
  const int finalized = sqlite3_finalize(statement.release());
  if (finalized != SQLITE_OK) {
    if (KovrLogHelper record{1, kCreate, sql::kSource, "sqlite3_finalize() return code "}) {
      record << finalized;
    }
  }
  if (stepped == SQLITE_CONSTRAINT) {
    const std::string message =
        "Configuration '" + name + "' (version " + Config::version(version) + ") already exists";
    throw_text<XConstraint>(0, message.c_str());
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

  // A refused insert is reported and no more, a taken name included. // Quirk Q13
  sql::Statement statement;
  insert(db, text, packed, kUpdate, statement);
  if (statement == nullptr) return;
  statement.reset();
  log_total_changes(db, kUpdate);
}

}  // namespace ConfSave
