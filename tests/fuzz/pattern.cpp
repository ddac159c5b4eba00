// Names, patterns and orders become parts of statements unchanged. They may reach the rows, and nothing
// else.

#include <cstdint>

#include "host.h"

namespace {

/// Everything in the database except the rows.
std::string picture() {
  sqlite3* db = nullptr;
  sqlite3_open(fuzz::database().c_str(), &db);
  std::string result;
  const auto take = [](void* context, int, char** values, char**) {
    *static_cast<std::string*>(context) += values[0] != nullptr ? values[0] : "";
    return 0;
  };
  sqlite3_exec(db, "select type || name || coalesce(sql, '') from sqlite_schema", take, &result, nullptr);
  sqlite3_exec(db, "pragma user_version", take, &result, nullptr);
  sqlite3_exec(db, "pragma integrity_check", take, &result, nullptr);
  sqlite3_close(db);
  return result;
}

void make_rows() {
  std::filesystem::remove(fuzz::database());
  const ConfSave::Storage storage;
  sqlite3* db = nullptr;
  sqlite3_open(fuzz::database().c_str(), &db);
  sqlite3_exec(db,
               "pragma synchronous=off; insert into Config (name, version, type) values ('weekly', 0, 1)",
               nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  // Skip recursive statements, which may run for any time.
  if (text.find("recursive") != std::string::npos || text.find("RECURSIVE") != std::string::npos) return 0;
  make_rows();
  const std::string before = picture();
  fuzz::expect_stated_end([&] { ConfSave::Storage().FindMatching(text, 0, true); });
  fuzz::expect_stated_end([&] { ConfSave::Storage().List(0, text, true); });
  fuzz::expect_stated_end([&] { ConfSave::Storage().Exists(text, 0); });
  fuzz::expect_stated_end([&] { ConfSave::load(text, nullptr, 0, true); });
  fuzz::expect_stated_end([&] { ConfSave::App::del(text); });
  if (picture() != before) std::abort();
  return 0;
}
