// A row that is not stored as it was written, as SQLite or a table of another program may leave it.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>

#include "snapshots/saving.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

/// What happens to a row right after it was inserted, once.
std::string change;

int after_insert(unsigned, void* context, void* statement, void*) {
  const char* text = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
  if (change.empty() || text == nullptr || std::strncmp(text, "insert into Config", 18) != 0) return 0;
  const std::string now = std::move(change);
  change.clear();
  auto* db = static_cast<sqlite3*>(context);
  EXPECT_EQ(sqlite3_exec(db, now.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  return 0;
}

int watch(sqlite3* db, const char**, const sqlite3_api_routines*) {
  return sqlite3_trace_v2(db, SQLITE_TRACE_PROFILE, after_insert, db);
}

class ReadBack : public Saving {
 protected:
  ReadBack() { sqlite3_auto_extension(reinterpret_cast<void (*)()>(watch)); }
  ~ReadBack() override { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(watch)); }
};

TEST_F(ReadBack, ARowThatIsNotAsItWasWrittenIsNotStored) {
  const char* const archive = "an archive does not read back as it was written";
  const char* const part = "an archive is stored only in part";
  const char* const row = "the row is not stored as it was written";
  const struct {
    const char* set;
    const char* text;
  } cases[] = {
      {"keybase = zeroblob(length(keybase))", archive},
      {"keybase = substr(keybase, 1, length(keybase) - 1)", part},
      {"keybase = cast(keybase || x'00' as blob)", archive},
      {"etc = zeroblob(length(etc))", archive},
      {"etc = x''", part},
      {"version = version + 1", row},
      {"type = 2", row},
      {"type = 'full'", row},
      {"save_time = 5", row},
      {"load_time = 5", row},
  };
  saved("weekly");
  const Rows before = query("select *, hex(keybase), hex(etc) from Config");
  write_file(config("gw1.conf"), "changed");
  for (const std::string name : {"weekly", "other"}) {
    for (const auto& c : cases) {
      change = std::string("update Config set ") + c.set + " where id = last_insert_rowid()";
      const Error error = failure({name}, overwrite());
      EXPECT_EQ(change, "") << "nothing was inserted";
      EXPECT_EQ(error.code, Code::failed) << c.set;
      EXPECT_EQ(error.path, database()) << c.set;
      EXPECT_EQ(error.text, c.text) << name << ": " << c.set;
      EXPECT_TRUE(query("select *, hex(keybase), hex(etc) from Config") == before) << c.set;
    }
  }
  change = "update Config set name = cast(name as blob) where id = last_insert_rowid()";
  EXPECT_EQ(failure({"other"}).text, row) << "a name that is no text";
  EXPECT_EQ(saved("weekly", overwrite()).outcome, Saved::Outcome::replaced);
}

}  // namespace
