// Rows with any type and value in each column are listed, matched, loaded and cleaned.

#include <cstdint>

#include "host.h"
#include "pieces.h"

namespace {

using fuzz::Pieces;

void bind(sqlite3_stmt* statement, int index, Pieces& pieces) {
  const std::uint8_t kind = pieces.byte();
  const std::string value = pieces.text();
  const int length = static_cast<int>(value.size());
  switch (kind % 5) {
    case 0:
      sqlite3_bind_text(statement, index, value.data(), length, SQLITE_TRANSIENT);
      break;
    case 1:
      sqlite3_bind_blob(statement, index, value.data(), length, SQLITE_TRANSIENT);
      break;
    case 2:
      sqlite3_bind_int64(statement, index, std::strtoll(value.c_str(), nullptr, 36));
      break;
    case 3:
      sqlite3_bind_double(statement, index, std::strtod(value.c_str(), nullptr));
      break;
    default:
      break;  // NULL
  }
}

void make_table(Pieces& pieces) {
  std::filesystem::remove(fuzz::database());
  sqlite3* db = nullptr;
  sqlite3_open(fuzz::database().c_str(), &db);
  sqlite3_exec(db,
               "pragma synchronous=off; pragma journal_mode=off;"
               "create table Config (id, name, version, keybase, etc, type, save_time, load_time)",
               nullptr, nullptr, nullptr);
  for (int row = 0; row < 2; ++row) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, "insert into Config values (?,?,?,?,?,?,?,?)", -1, &statement, nullptr);
    for (int column = 1; column <= 8; ++column) bind(statement, column, pieces);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
  }
  sqlite3_exec(db, "update Config set name='weekly', version=0 where rowid=1", nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Pieces pieces(data, size);
  make_table(pieces);
  fuzz::expect_stated_end([] { ConfSave::App::lst(); });
  fuzz::expect_stated_end([] { ConfSave::CheckOld(); });
  fuzz::expect_stated_end([] { ConfSave::Storage().FindMatching("*", 0, false); });
  fuzz::expect_stated_end([] { ConfSave::Storage().Load("weekly", nullptr, 0, true); });
  fuzz::expect_stated_end([] { ConfSave::AutoSave("", ConfSave::conf_full, 1); });
  return 0;
}
