#pragma once

// What the library runs and logs, written out, for the tests of more than one source.

#include <string>
#include <vector>

#include "support/test_host.h"

namespace test {

using Texts = std::vector<std::string>;
using Rows = std::vector<Texts>;
using Widths = std::vector<unsigned>;

/// Before the table, and only in a file that is new.
inline const std::string kChooseLayout = "pragma auto_vacuum=incremental";

inline const std::string kCreateTable =
    "create table 'Config' (id integer primary key autoincrement, name varchar(80) not null, version "
    "integer not null, keybase blob, etc blob, type integer, save_time timestamp, load_time timestamp, "
    "unique (name, version) )";

/// Every configuration but the packet filter's.
inline const std::string kSelectAll =
    "select name, version, type, save_time, load_time from 'Config' where name!='corlu-config'";

// Command lines, with "<archive>" for a temporary file and "<root>" for the test's own directory.

inline const std::string kPackEtc =
    "cd /mnt/main/etc/ && tar czf <archive> --ignore-failed-read  failover.ini failover.ini.crg "
    "failoverd-config.crg 2>/dev/null";
inline const std::string kPackFull =
    "cd <root>/config/ && tar czf <archive> --ignore-failed-read  user/gateway.conf user/gateway.key* "
    "user/interfaces.conf user/routes.conf user/filter.conf user/nat.conf user/services.conf "
    "user/users.conf user/schedule.conf user/notify.conf user/config.db user/config.idx user/kwtp.conf "
    "user/upgrade.conf user/corlucfg-config.crg user/kwtpd-config.crg gw* peer* outnet* remote.txt "
    "quelvian.re corluadr* linkmap.dat station user/key_set hub/out hub/old hub/key 2>/dev/null";
inline const std::string kPackPart =
    "cd <root>/config/ && tar czf <archive> --ignore-failed-read  user/gateway.conf user/gateway.key* "
    "user/interfaces.conf user/routes.conf user/filter.conf user/nat.conf user/services.conf "
    "user/users.conf user/schedule.conf user/notify.conf user/config.db user/config.idx user/kwtp.conf "
    "user/upgrade.conf user/corlucfg-config.crg user/kwtpd-config.crg 2>/dev/null";
inline const std::string kPackCorlu =
    "cd <root>/config/ && tar czf <archive> --ignore-failed-read  user/gateway.conf user/gateway.key* "
    "user/interfaces.conf user/routes.conf user/filter.conf user/nat.conf user/services.conf "
    "user/users.conf user/schedule.conf user/notify.conf user/config.db user/config.idx "
    "user/upgrade.conf user/corlucfg-config.crg 2>/dev/null";

// Log records, one function for each function of the library that writes some.

inline LogRecord storage_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level, "ConfSave::Storage::Storage()", "Storage", "source/storage", text, widths};
}

inline LogRecord exists_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level, "bool ConfSave::Storage::Exists(const string&, int64)", "Exists", "source/storage", text,
          widths};
}

inline LogRecord delete_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level, "void ConfSave::Storage::Delete(const string&, int64)", "Delete", "source/storage", text,
          widths};
}

inline LogRecord create_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level,    "void ConfSave::Storage::Create(const string&, ConfSave::conftype, int64)",
          "Create", "source/storage",
          text,     widths};
}

inline LogRecord update_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level,    "void ConfSave::Storage::Update(const string&, ConfSave::conftype, int64)",
          "Update", "source/storage",
          text,     widths};
}

inline LogRecord load_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level,  "void ConfSave::Storage::Load(const string&, const char*, int64, bool)",
          "Load", "source/storage",
          text,   widths};
}

inline LogRecord list_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level,  "Configs ConfSave::Storage::List(int64, const string&, bool)",
          "List", "source/storage",
          text,   widths};
}

inline LogRecord find_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level,          "Configs ConfSave::Storage::FindMatching(const string&, int64, bool)",
          "FindMatching", "source/storage",
          text,           widths};
}

inline LogRecord pack_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level,  "void ConfSave::pack(const string&, const string&, const string&)",
          "pack", "source/archive",
          text,   widths};
}

inline const LogRecord kTryTables = storage_says(4, "Try create storage tables");
inline const LogRecord kTablesMade = storage_says(4, "storage tables successfully created");
inline const LogRecord kCannotOpen =
    storage_says(1, "Can't open database: unable to open database file (return code: 14)\n", {4});

/// The report of a refused statement.
inline std::string refusal(const std::string& error, const std::string& statement, int code) {
  return "SQL error: " + error + ". Query: " + statement + " (return code: " + std::to_string(code) + ")";
}

template <class Value>
std::vector<Value> operator+(std::vector<Value> left, const std::vector<Value>& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

}  // namespace test
