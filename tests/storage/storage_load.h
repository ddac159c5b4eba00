#pragma once

// What the tests of Storage::Load share.

#include <filesystem>
#include <set>

#include "storage/rows.h"

namespace test {

inline const std::string kSelectStored = select_of("weekly");
inline const std::string kStampFirst = stamp_of("1");

inline const LogRecord kLoadBegins = says(kLoad, 2, "Try to load");
inline const LogRecord kOneChange = says(kLoad, 4, "sqlite3_total_changes: 1", {4});
inline const LogRecord kNoChange = says(kLoad, 4, "sqlite3_total_changes: 0", {4});

inline const Texts kUnpackEtc = unpack_into("/mnt/main/etc/");
inline const Texts kUnpackKeybase = unpack_into("<root>/config/");

inline const Rows kStamped{{"1", "<now>"}};
inline const Rows kNotStamped{{"1", "NULL"}};

/// A storage, two archives that the real tar made, and empty directories to restore them in.
struct StorageLoad : OpenedStorage {
  StorageLoad() {
    make_configuration();
    config_files = files_below(config_dir());
    etc_files = files_below(etc_dir());
    keybase = make_archive(config_dir(), "user gw1.conf gw2.conf hub");
    etc = make_archive(etc_dir(), "failover.ini failover.ini.crg failoverd-config.crg");
    sizes = sizes_record(keybase.size(), etc.size());
    empty_directory(config_dir());
    empty_directory(etc_dir());
    std::filesystem::create_directory(config_dir() + "user");
  }

  RowSpec row(int type) const { return row(type, hex(keybase), hex(etc)); }

  static RowSpec row(int type, const std::string& keybase_value, const std::string& etc_value) {
    return {"weekly", kCurrent, type, "1000", "NULL", keybase_value, etc_value};
  }

  static RowSpec named(const std::string& name, RowSpec spec) {
    spec.name = name;
    return spec;
  }

  /// Makes the foreign table with these rows, whose ids are 1 and 2.
  void put_both(const RowSpec& first, const RowSpec& second) {
    rearrange(kForeignTable);
    put(first);
    put(second);
    rearrange("update Config set id = rowid");
  }

  void load() { storage->Load("weekly", nullptr, kCurrent, true); }

  /// All rows: id, load_time.
  Rows stamps() const { return query("select id, load_time from Config order by rowid"); }

  /// Loads without running a command. Returns the bytes of the temporary files at the first command,
  /// sorted.
  std::multiset<std::string> load_and_keep_archives() {
    std::multiset<std::string> contents;
    host.on_command = [&](const std::string&) -> std::optional<int> {
      if (host.commands.size() == 1) {
        for (const auto& file : tree(temp_dir())) contents.insert(file.second);
      }
      return 0;
    };
    load();
    host.on_command = nullptr;
    return contents;
  }

  static std::multiset<std::string> archives(const Bytes& one, const Bytes& other) {
    return {std::string(one.begin(), one.end()), std::string(other.begin(), other.end())};
  }

  static LogRecord sizes_record(std::size_t keybase_size, std::size_t etc_size) {
    return says(
        kLoad, 2,
        "sqlite3_column_bytes: sz0=" + std::to_string(keybase_size) + ", sz1=" + std::to_string(etc_size),
        {4, 4});
  }

  /// Loads, which must fail with this message and change nothing.
  void expect_rejected(const std::string& message) {
    EXPECT_EQ(thrown([this] { load(); }), message);
    EXPECT_EQ(sqlite3_next_stmt(connection, nullptr), nullptr);
    EXPECT_TRUE(lock_is_free(database()));
    EXPECT_EQ(commands(), Texts());
    EXPECT_EQ(query("select * from Config where load_time is not null"), Rows());
  }

  Files config_files;
  Files etc_files;
  Bytes keybase;
  Bytes etc;
  LogRecord sizes;
};

}  // namespace test
