#pragma once

// Statements, commands and log records of the library, written out, for the tests of more than one source.

#include <string>
#include <vector>

#include "confsave.h"
#include "support/test_host.h"

namespace test {

using Texts = std::vector<std::string>;
using Rows = std::vector<Texts>;
using Widths = std::vector<unsigned>;

/// 4.5.4 as a number, written out so that the tests do not depend on the library's constant.
constexpr ConfSave::int64 kCurrent = 17264017408;
inline const std::string kCurrentText = "17264017408";

/// Runs before the table is made, and only in a new file.
inline const std::string kPageSize = "pragma page_size=8192;";
inline const std::string kAutoVacuum = "pragma auto_vacuum=incremental";
inline const std::string kChooseLayout = kPageSize + kAutoVacuum;

inline const std::string kCreateTable =
    "create table 'Config' (id integer primary key autoincrement, name varchar(80) not null, version "
    "integer not null, keybase blob, etc blob, type integer, save_time timestamp, load_time timestamp, "
    "unique (name, version) )";

/// Every configuration except the packet filter's.
inline const std::string kSelectAll =
    "select name, version, type, save_time, load_time from 'Config' where name!='corlu-config'";

// Statements about one row, with "<now>" for the time.

inline std::string where(const std::string& name, const std::string& version) {
  return "name='" + name + "' and version=" + version;
}

inline std::string count_of(const std::string& name, const std::string& version = kCurrentText) {
  return "select count(*) from 'Config' where " + where(name, version);
}

inline std::string delete_of(const std::string& name, const std::string& version = kCurrentText) {
  return "delete from 'Config' where " + where(name, version);
}

inline std::string insert_of(const std::string& name, const std::string& version = kCurrentText,
                             const std::string& type = "1") {
  return "insert into 'Config' (name,keybase,etc,version, save_time, type) values ('" + name + "',?,?," +
         version + ",<now>," + type + ")";
}

inline std::string select_of(const std::string& name, const std::string& version = kCurrentText) {
  return "select keybase, etc, type, id from 'Config' where name!='corlu-config' and " +
         where(name, version);
}

inline std::string stamp_of(const std::string& id) {
  return "update 'Config' set load_time=<now> where id=" + id;
}

// Command lines, with "<archive>" for a temporary file and "<root>" for the gateway's directory.

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

/// The commands that unpack one archive into `dir`.
inline Texts unpack_into(const std::string& dir) {
  return {"tar xzf <archive> --exclude corlu.serv -C " + dir + "/<scratch> 2>/dev/null",
          "cp -alf " + dir + "/<scratch>/* " + dir + "/. 2>/dev/null",
          "rm -rf " + dir + "/<scratch> 2>/dev/null"};
}

// Log records.

/// A function of the library that writes log records.
struct Function {
  std::string signature;
  std::string name;
  std::string source;
};

inline const Function kStorage{"ConfSave::Storage::Storage()", "Storage", "source/storage"};
inline const Function kExists{"bool ConfSave::Storage::Exists(const string&, int64)", "Exists",
                              "source/storage"};
inline const Function kDelete{"void ConfSave::Storage::Delete(const string&, int64)", "Delete",
                              "source/storage"};
inline const Function kCreate{"void ConfSave::Storage::Create(const string&, ConfSave::conftype, int64)",
                              "Create", "source/storage"};
inline const Function kUpdate{"void ConfSave::Storage::Update(const string&, ConfSave::conftype, int64)",
                              "Update", "source/storage"};
inline const Function kLoad{"void ConfSave::Storage::Load(const string&, const char*, int64, bool)", "Load",
                            "source/storage"};
inline const Function kList{"Configs ConfSave::Storage::List(int64, const string&, bool)", "List",
                            "source/storage"};
inline const Function kFindMatching{"Configs ConfSave::Storage::FindMatching(const string&, int64, bool)",
                                    "FindMatching", "source/storage"};
inline const Function kCheckColumnType{
    "void ConfSave::checkColumnType(const string&, int64, sqlite3_stmt*, const char*, int, int, bool)",
    "checkColumnType", "source/storage"};
inline const Function kPack{"void ConfSave::pack(const string&, const string&, const string&)", "pack",
                            "source/archive"};
inline const Function kUnpack{"void ConfSave::unpack(const string&, const string&)", "unpack",
                              "source/archive"};

/// The record that `function` writes.
inline LogRecord says(const Function& function, int level, const std::string& text,
                      const Widths& widths = {}) {
  return {level, function.signature, function.name, function.source, text, widths};
}

inline const LogRecord kTryTables = says(kStorage, 4, "Try create storage tables");
inline const LogRecord kTablesMade = says(kStorage, 4, "storage tables successfully created");
inline const LogRecord kCannotOpen =
    says(kStorage, 1, "Can't open database: unable to open database file (return code: 14)\n", {4});

/// The text that reports a refused statement.
inline std::string refusal(const std::string& error, const std::string& statement, int code) {
  return "SQL error: " + error + ". Query: " + statement + " (return code: " + std::to_string(code) + ")";
}

template <class Value>
std::vector<Value> operator+(std::vector<Value> left, const std::vector<Value>& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

}  // namespace test
