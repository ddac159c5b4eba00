#include "autosave.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <limits>
#include <locale>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "confsave.h"
#include "support/console.h"
#include "support/gateway.h"
#include "support/grouped_digits.h"

namespace {

namespace fs = std::filesystem;

using ConfSave::AutoSave;
using ConfSave::autosave_name;
using ConfSave::CheckOld;
using ConfSave::CleanAutosaves;
using ConfSave::conf_corlu;
using ConfSave::conf_full;
using ConfSave::conf_part;
using ConfSave::Config;
using ConfSave::conftype;
using ConfSave::int64;
using ConfSave::is_old_autosave;
using ConfSave::save_if_unique;
using ConfSave::Storage;
using ConfSave::XConstraint;
using ConfSave::XExternalFailure;
using ConfSave::XNotFound;
using test::GroupedDigits;
using test::kCannotOpen;
using test::kChooseLayout;
using test::kCreate;
using test::kCreateTable;
using test::kCurrent;
using test::kDelete;
using test::kExists;
using test::kFindMatching;
using test::kList;
using test::kPackCorlu;
using test::kPackEtc;
using test::kPackFull;
using test::kPackPart;
using test::kSelectAll;
using test::kTablesMade;
using test::kTryTables;
using test::LogRecord;
using test::LogRecords;
using test::Rows;
using test::says;
using test::Texts;
using test::Widths;
using test::operator+;

using Raise = std::function<void()>;
using SystemLog = std::vector<std::pair<int, std::string>>;

constexpr int64 k31Days = 2678400;

const std::string kFindAutosaves =
    "select id, name, type, version, save_time, load_time from 'Config' where name!='corlu-config' and "
    "name glob 'autosave*'";

std::string count_statement(const std::string& name) {
  return "select count(*) from 'Config' where name='" + name + "' and version=17264017408";
}

std::string delete_statement(const std::string& name, const std::string& version = "17264017408") {
  return "delete from 'Config' where name='" + name + "' and version=" + version;
}

std::string insert_statement(const std::string& name, const std::string& type = "1") {
  return "insert into 'Config' (name,keybase,etc,version, save_time, type) values ('" + name +
         "',?,?,17264017408,<now>," + type + ")";
}

/// What the saving of a free name runs.
Texts saving(const std::string& name) {
  return {count_statement(name), delete_statement(name), insert_statement(name)};
}

LogRecord unique_says(const std::string& text) {
  return {4,
          "bool ConfSave::save_if_unique(ConfSave::Storage&, const string&, ConfSave::conftype)",
          "save_if_unique",
          "source/freefunc",
          text,
          {}};
}

LogRecord clean_says(int level, const std::string& text, const Widths& widths = {}) {
  return {level,
          "void ConfSave::CleanAutosaves(ConfSave::Storage&, unsigned int)",
          "CleanAutosaves",
          "source/freefunc",
          text,
          widths};
}

const LogRecord kUnknownException{
    1, "bool ConfSave::CheckOld()", "CheckOld", "source/freefunc", "unknown exception raised!", {}};

/// The records of the saving of a free name, the change of this number on its connection.
LogRecords saved_as(const std::string& name, int change) {
  return {says(kDelete, 4, "config name '" + name + "'"),
          says(kCreate, 2, "Try to save configuration '" + name + "' (version 17264017408)", {8}),
          says(kCreate, 4, "sqlite3_total_changes: " + std::to_string(change), {4}),
          unique_says("config '" + name + "' (version 4.5.4) successfully saved")};
}

/// Throws a copy of `exception`, of exactly its type.
template <class Exception>
Raise throwing(Exception exception) {
  return [exception] { throw exception; };
}

/// The name of an autosave at `time` in a zone that is `offset` seconds ahead of UTC.
std::string name_at(std::time_t time, int offset = 0) {
  time += offset;
  std::tm parts = {};
  gmtime_r(&time, &parts);
  std::ostringstream name;
  name << "autosave-" << std::put_time(&parts, "%Y-%m-%d-%H-%M-%S");
  return name.str();
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

class Housekeeping : public test::Gateway {
 protected:
  Housekeeping() { make_configuration(); }

  /// Runs `call`, which nobody at a terminal notices, and which leaves nothing behind.
  void run(const std::function<void()>& call) {
    host.system_log.clear();
    forget();
    {
      test::Console console("not read\n");
      call();
      ended = std::time(nullptr);
      EXPECT_EQ(console.transcript(), "");
      EXPECT_EQ(console.unread(), "not read\n");
    }
    EXPECT_EQ(temp_files(), Texts());
    EXPECT_EQ(open_files(), Texts());
    if (damaged || !test::exists(database())) return;
    EXPECT_TRUE(test::lock_is_free(database()));
    EXPECT_EQ(query("pragma integrity_check"), Rows{{"ok"}});
  }

  /// Forgets what was run and logged so far.
  void forget() {
    recorder.clear();
    host.records.clear();
    host.commands.clear();
  }

  void autosave(unsigned limit, conftype type = conf_full, const std::string& name = "") {
    run([&] { AutoSave(name, type, limit); });
  }

  /// What the cleaning alone runs and logs.
  void clean(unsigned limit) {
    run([&] {
      Storage storage;
      forget();
      CleanAutosaves(storage, limit);
    });
  }

  bool save_unique(const std::string& name, conftype type = conf_full) {
    bool saved = false;
    run([&] {
      Storage storage;
      forget();
      saved = save_if_unique(storage, name, type);
    });
    return saved;
  }

  bool check_old() {
    bool old = false;
    run([&] { old = CheckOld(); });
    return old;
  }

  /// Starts from an empty storage, stores what `prepare` does for the name that an autosave has in this
  /// second, and runs `call`; all over again when the second ended meanwhile.
  void in_one_second(const std::function<void(const std::string&)>& prepare,
                     const std::function<void()>& call) {
    for (int attempt = 0; attempt < 50; ++attempt) {
      fs::remove(database());
      make_table();
      const std::time_t now = std::time(nullptr);
      prepare(name_at(now));
      run(call);
      if (ended == now) return;
    }
    FAIL() << "a second is too short here";
  }

  /// What is asked of the storage when it holds `row`, saved so many seconds before.
  bool check_old_with(test::RowSpec row, int64 age) {
    for (int attempt = 0; attempt < 50; ++attempt) {
      fs::remove(database());
      const std::time_t now = std::time(nullptr);
      row.save_time = std::to_string(now - age);
      put(row);
      const bool old = check_old();
      if (ended == now) return old;
    }
    ADD_FAILURE() << "a second is too short here";
    return false;
  }

  void make_table() { sql(kCreateTable); }

  void put(const test::RowSpec& row) {
    if (!test::exists(database())) make_table();
    test::insert_row(database(), row);
  }

  void put_names(const Texts& names) {
    for (const std::string& name : names) put({name, kCurrent});
  }

  /// Runs a statement past the library.
  void sql(const std::string& text) { test::Database(database()).run(text); }

  /// A table that somebody else made, of which the library's statements know no column.
  void make_foreign_table() { sql("create table Config (colour text)"); }

  void keep_all_rows() {
    sql("create trigger keep before delete on Config begin select raise(abort, 'kept'); end");
  }

  void make_storage_unopenable() { setenv("KELMOR_DYNAMIC_DIR", (root() + "/missing").c_str(), 1); }

  /// A file that SQLite opens and then finds to be no database.
  void damage_database() {
    test::write_file(database(), std::string(4096, 'x'));
    damaged = true;
  }

  /// Commands succeed without being run, which makes empty archives of a configuration, and quickly.
  void pack_nothing() {
    host.on_command = [](const std::string&) { return 0; };
  }

  /// The host's log throws when `function` begins its next record.
  void fail_in_log(const std::string& function, Raise raise) {
    host.on_record = [function, raise = std::move(raise)](const std::string& name) mutable {
      if (name == function && raise) std::exchange(raise, nullptr)();
    };
  }

  /// All rows in the order in which they were stored: name, version, type, save_time, load_time.
  Rows rows() const {
    Rows result = query("select name, version, type, save_time, load_time from Config order by id");
    for (Texts& row : result) {
      for (std::string& text : row) text = shown(text);
    }
    return result;
  }

  Texts names() const {
    Texts result;
    for (const Texts& row : rows()) result.push_back(row[0]);
    return result;
  }

  /// The names of autosaves in the order in which a match delivers them.
  Texts matching_order() const {
    Texts result;
    for (const Texts& row : query(kFindAutosaves)) result.push_back(row[1]);
    return result;
  }

  Texts statements() const {
    Texts texts;
    for (const std::string& text : recorder.statements()) texts.push_back(shown(text));
    return texts;
  }

  LogRecords records() const { return shown(host.records); }

  LogRecords shown(LogRecords list) const {
    for (LogRecord& record : list) record.text = shown(record.text);
    return list;
  }

  SystemLog system_log() const {
    SystemLog lines = host.system_log;
    for (auto& [priority, text] : lines) text = shown(text);
    return lines;
  }

  test::StatementRecorder recorder;
  std::time_t ended = 0;
  int zone = 0;  ///< Seconds ahead of UTC.

 private:
  /// `text` with "<now>" for every time since the start, and with "autosave-<now>" for its name.
  std::string shown(std::string text) const {
    const std::time_t until = std::time(nullptr);
    for (std::time_t time = started; time <= until; ++time) {
      replace_all(text, std::to_string(time), "<now>");
      replace_all(text, name_at(time, zone), "autosave-<now>");
    }
    return text;
  }

  bool damaged = false;
};

// ---------------------------------------------------------------------------------------------------
// The name

class AutosaveName : public testing::Test {
 protected:
  AutosaveName() { set_zone("UTC"); }
  ~AutosaveName() override { set_zone("UTC"); }

  static void set_zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }

  static std::string name_in(const char* zone, std::time_t time) {
    set_zone(zone);
    return autosave_name(time);
  }
};

/// Central Europe, its rule spelled out.
constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";

TEST_F(AutosaveName, ItIsTheDateAndTime) {
  EXPECT_EQ(autosave_name(1488377109), "autosave-2017-03-01-14-05-09");
  EXPECT_EQ(autosave_name(0), "autosave-1970-01-01-00-00-00");
  EXPECT_EQ(autosave_name(-1), "autosave-1969-12-31-23-59-59");
}

TEST_F(AutosaveName, ItIsTheLocalTime) {
  EXPECT_EQ(name_in(kBerlin, 1488377109), "autosave-2017-03-01-15-05-09");
  EXPECT_EQ(name_in(kNewYork, 1488377109), "autosave-2017-03-01-09-05-09");
  EXPECT_EQ(name_in("IST-5:30", 1488377109), "autosave-2017-03-01-19-35-09");
  EXPECT_EQ(name_in("NPT-5:45", 1488377109), "autosave-2017-03-01-19-50-09");
  EXPECT_EQ(name_in("<+14>-14", 1488377109), "autosave-2017-03-02-04-05-09");
  EXPECT_EQ(name_in("<-12>12", 1488377109), "autosave-2017-03-01-02-05-09");
  EXPECT_EQ(name_in("<-0330>3:30", 0), "autosave-1969-12-31-20-30-00");
}

TEST_F(AutosaveName, TheHourSkippedInSpringIsInNoName) {
  EXPECT_EQ(name_in(kBerlin, 1490489999), "autosave-2017-03-26-01-59-59");
  EXPECT_EQ(name_in(kBerlin, 1490490000), "autosave-2017-03-26-03-00-00");
  EXPECT_EQ(name_in(kNewYork, 1489301999), "autosave-2017-03-12-01-59-59");
  EXPECT_EQ(name_in(kNewYork, 1489302000), "autosave-2017-03-12-03-00-00");
}

TEST_F(AutosaveName, BothHoursRepeatedInAutumnHaveTheSameNames) {
  EXPECT_EQ(name_in(kBerlin, 1509235199), "autosave-2017-10-29-01-59-59");
  EXPECT_EQ(name_in(kBerlin, 1509235200), "autosave-2017-10-29-02-00-00");
  EXPECT_EQ(name_in(kBerlin, 1509238799), "autosave-2017-10-29-02-59-59");
  EXPECT_EQ(name_in(kBerlin, 1509238800), "autosave-2017-10-29-02-00-00");
  EXPECT_EQ(name_in(kBerlin, 1509242399), "autosave-2017-10-29-02-59-59");
  EXPECT_EQ(name_in(kBerlin, 1509242400), "autosave-2017-10-29-03-00-00");
  EXPECT_EQ(name_in(kNewYork, 1509858000), "autosave-2017-11-05-01-00-00");
  EXPECT_EQ(name_in(kNewYork, 1509861600), "autosave-2017-11-05-01-00-00");
}

TEST_F(AutosaveName, TheYearEndsAtLocalMidnight) {
  EXPECT_EQ(autosave_name(1483228799), "autosave-2016-12-31-23-59-59");
  EXPECT_EQ(autosave_name(1483228800), "autosave-2017-01-01-00-00-00");
  EXPECT_EQ(autosave_name(951868799), "autosave-2000-02-29-23-59-59");
  EXPECT_EQ(autosave_name(951868800), "autosave-2000-03-01-00-00-00");
  EXPECT_EQ(name_in("<+14>-14", 1483178399), "autosave-2016-12-31-23-59-59");
  EXPECT_EQ(name_in("<+14>-14", 1483178400), "autosave-2017-01-01-00-00-00");
}

TEST_F(AutosaveName, TheYearHasAllItsDigits) {
  EXPECT_EQ(autosave_name(253402300799), "autosave-9999-12-31-23-59-59");
  EXPECT_EQ(autosave_name(253402300800), "autosave-10000-01-01-00-00-00");
  EXPECT_EQ(autosave_name(67767976233532799), "autosave-2147483647-12-31-23-59-59");
  EXPECT_EQ(autosave_name(-67768040609740800), "autosave--2147481748-01-01-00-00-00");
}

TEST_F(AutosaveName, ATimeWithoutADateIsANumber) {
  const GroupedDigits grouped;
  EXPECT_EQ(autosave_name(67768036191676800), "autosave-67768036191676800");
  EXPECT_EQ(autosave_name(-67768040609740801), "autosave--67768040609740801");
  EXPECT_EQ(autosave_name(INT64_MAX), "autosave-9223372036854775807");
  EXPECT_EQ(autosave_name(INT64_MIN), "autosave--9223372036854775808");
}

// ---------------------------------------------------------------------------------------------------
// save_if_unique

using SaveIfUnique = Housekeeping;

TEST_F(SaveIfUnique, AFreeNameIsStored) {
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(statements(), (Texts{
                              "select count(*) from 'Config' where name='weekly' and version=17264017408",
                              "delete from 'Config' where name='weekly' and version=17264017408",
                              "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                              "('weekly',?,?,17264017408,<now>,1)",
                          }));
  EXPECT_EQ(records(),
            (LogRecords{
                says(kDelete, 4, "config name 'weekly'"),
                says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017408)", {8}),
                says(kCreate, 4, "sqlite3_total_changes: 1", {4}),
                {4,
                 "bool ConfSave::save_if_unique(ConfSave::Storage&, const string&, ConfSave::conftype)",
                 "save_if_unique",
                 "source/freefunc",
                 "config 'weekly' (version 4.5.4) successfully saved",
                 {}},
            }));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "1", "<now>", "NULL"}}));
}

TEST_F(SaveIfUnique, ATakenNameIsLeftAlone) {
  put({"weekly", kCurrent, 2, "1000", "2000"});
  EXPECT_FALSE(save_unique("weekly"));
  EXPECT_EQ(statements(), Texts{count_statement("weekly")});
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "2", "1000", "2000"}}));
}

TEST_F(SaveIfUnique, AnotherVersionDoesNotTakeTheName) {
  put({"weekly", 0});
  put({"weekly", kCurrent + 1});
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(rows(), (Rows{{"weekly", "0", "1", "1000", "NULL"},
                          {"weekly", "17264017409", "1", "1000", "NULL"},
                          {"weekly", "17264017408", "1", "<now>", "NULL"}}));
}

TEST_F(SaveIfUnique, TheTypeDecidesWhatIsStored) {
  EXPECT_TRUE(save_unique("part", conf_part));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart}));
  EXPECT_TRUE(save_unique("corlu", conf_corlu));
  EXPECT_EQ(commands(), Texts{kPackCorlu});
  EXPECT_EQ(rows(), (Rows{{"part", "17264017408", "2", "<now>", "NULL"},
                          {"corlu", "17264017408", "3", "<now>", "NULL"}}));
}

TEST_F(SaveIfUnique, SuccessIsToldAtLevel4Only) {
  for (const int level : {0, 1, 2, 3}) {
    host.log_level = level;
    EXPECT_TRUE(save_unique("level" + std::to_string(level)));
    for (const LogRecord& record : host.records) EXPECT_EQ(record.name, "Create") << record;
  }
}

TEST_F(SaveIfUnique, ATableThatCannotBeReadHoldsTheName) {
  bool saved = true;
  run([&] {
    Storage storage;
    sql("drop table Config");
    forget();
    saved = save_if_unique(storage, "weekly", conf_full);
  });
  EXPECT_FALSE(saved);
  EXPECT_EQ(records(), (LogRecords{says(kExists, 2,
                                        "SQL error: no such table: Config. Query: " +
                                            count_statement("weekly") + " (return code: 1)",
                                        {4})}));
  EXPECT_EQ(commands(), Texts());
}

TEST_F(SaveIfUnique, StorageThatCannotBeOpenedCountsAsSaved) {
  make_storage_unopenable();
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(records(), LogRecords{unique_says("config 'weekly' (version 4.5.4) successfully saved")});
  EXPECT_EQ(commands(), Texts());
}

TEST_F(SaveIfUnique, ARefusedInsertCountsAsSaved) {
  make_table();
  sql("create trigger no before insert on Config begin select raise(fail, 'full'); end");
  EXPECT_THROW(save_unique("weekly"), XConstraint);
  sql("drop trigger no");
  sql("alter table Config rename column type to kind");
  EXPECT_TRUE(save_unique("weekly"));
  EXPECT_EQ(records(),
            (LogRecords{
                says(kDelete, 4, "config name 'weekly'"),
                says(kCreate, 2, "Try to save configuration 'weekly' (version 17264017408)", {8}),
                says(kCreate, 2,
                     "SQL error: table Config has no column named type. Query: " +
                         insert_statement("weekly") + " (return code: 1)",
                     {4}),
                says(kCreate, 1, "Error: sqlite3_stmt *plineInfo == NULL"),
                unique_says("config 'weekly' (version 4.5.4) successfully saved"),
            }));
}

TEST_F(SaveIfUnique, AFailedTarLeaves) {
  host.on_command = test::fail_commands("cd /mnt/main/etc/ ", 7);
  run([] {
    Storage storage;
    const auto call = [&] { save_if_unique(storage, "weekly", conf_full); };
    EXPECT_EQ(test::thrown_by<XExternalFailure>(call).Status(), 36);
  });
  EXPECT_EQ(rows(), Rows());
}

TEST_F(SaveIfUnique, ANameTakenMeanwhileLeaves) {
  host.on_command = [this](const std::string&) -> std::optional<int> {
    if (host.commands.size() == 2) put({"weekly", kCurrent, 2});
    return std::nullopt;
  };
  run([] {
    Storage storage;
    const auto call = [&] { save_if_unique(storage, "weekly", conf_full); };
    EXPECT_STREQ(test::thrown_by<XConstraint>(call).ErrorMessage(),
                 "Configuration 'weekly' (version 4.5.4) already exists");
  });
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "2", "1000", "NULL"}}));
}

// ---------------------------------------------------------------------------------------------------
// CleanAutosaves

class Cleaning : public Housekeeping {
 protected:
  const Texts three{"autosave-1", "autosave-2", "autosave-3"};
};

std::string deleted(const std::string& name) {
  return "Deleted old confsave '" + name + "' (version 4.5.4)";
}

TEST_F(Cleaning, NothingIsFoundInAnEmptyStorage) {
  clean(1);
  EXPECT_EQ(statements(), (Texts{"select id, name, type, version, save_time, load_time from 'Config' where "
                                 "name!='corlu-config' and name glob 'autosave*'"}));
  EXPECT_EQ(records(), (LogRecords{{4,
                                    "void ConfSave::CleanAutosaves(ConfSave::Storage&, unsigned int)",
                                    "CleanAutosaves",
                                    "source/freefunc",
                                    "maxautosaves = 1, find autosaves = 0",
                                    {4, 8}}}));
  EXPECT_EQ(system_log(), SystemLog());
}

TEST_F(Cleaning, BelowTheLimitNothingIsDeleted) {
  put_names(three);
  clean(4);
  EXPECT_EQ(statements(), Texts{kFindAutosaves});
  EXPECT_EQ(records(), (LogRecords{clean_says(4, "maxautosaves = 4, find autosaves = 3", {4, 8})}));
  EXPECT_EQ(system_log(), SystemLog());
  EXPECT_EQ(names(), three);
}

TEST_F(Cleaning, AtTheLimitTheFirstIsDeleted) {
  put_names(three);
  clean(3);
  EXPECT_EQ(statements(), (Texts{kFindAutosaves,
                                 "delete from 'Config' where name='autosave-1' and version=17264017408"}));
  EXPECT_EQ(records(), (LogRecords{clean_says(4, "maxautosaves = 3, find autosaves = 3", {4, 8}),
                                   says(kDelete, 4, "config name 'autosave-1'")}));
  EXPECT_EQ(system_log(), (SystemLog{{6, "Deleted old confsave 'autosave-1' (version 4.5.4)"}}));
  EXPECT_EQ(names(), (Texts{"autosave-2", "autosave-3"}));
}

TEST_F(Cleaning, AboveTheLimitOneLessIsLeft) {
  put_names(three + Texts{"autosave-4"});
  clean(3);
  EXPECT_EQ(statements(),
            (Texts{kFindAutosaves, delete_statement("autosave-1"), delete_statement("autosave-2")}));
  EXPECT_EQ(system_log(), (SystemLog{{6, deleted("autosave-1")}, {6, deleted("autosave-2")}}));
  EXPECT_EQ(names(), (Texts{"autosave-3", "autosave-4"}));
}

TEST_F(Cleaning, ALimitOf1DeletesAll) {
  put_names(three);
  clean(1);
  EXPECT_EQ(records(), (LogRecords{clean_says(4, "maxautosaves = 1, find autosaves = 3", {4, 8}),
                                   says(kDelete, 4, "config name 'autosave-1'"),
                                   says(kDelete, 4, "config name 'autosave-2'"),
                                   says(kDelete, 4, "config name 'autosave-3'")}));
  EXPECT_EQ(names(), Texts());
}

TEST_F(Cleaning, ALimitOf0DeletesAll) {
  put_names(three);
  clean(0);
  EXPECT_EQ(statements(), (Texts{kFindAutosaves, delete_statement("autosave-1"),
                                 delete_statement("autosave-2"), delete_statement("autosave-3")}));
  EXPECT_EQ(records(), (LogRecords{clean_says(4, "maxautosaves = 0, find autosaves = 3", {4, 8}),
                                   says(kDelete, 4, "config name 'autosave-1'"),
                                   says(kDelete, 4, "config name 'autosave-2'"),
                                   says(kDelete, 4, "config name 'autosave-3'")}));
  EXPECT_EQ(
      system_log(),
      (SystemLog{{6, deleted("autosave-1")}, {6, deleted("autosave-2")}, {6, deleted("autosave-3")}}));
  EXPECT_EQ(names(), Texts());
}

TEST_F(Cleaning, ALimitOf0OnAnEmptyStorageDeletesNothing) {
  clean(0);
  EXPECT_EQ(statements(), Texts{kFindAutosaves});
  EXPECT_EQ(records(), (LogRecords{clean_says(4, "maxautosaves = 0, find autosaves = 0", {4, 8})}));
}

TEST_F(Cleaning, TheGreatestLimitDeletesNothing) {
  put_names(three);
  clean(4294967295);
  // Four bytes, all set, which the host of the tests reads as a signed number.
  EXPECT_EQ(records(), (LogRecords{clean_says(4, "maxautosaves = -1, find autosaves = 3", {4, 8})}));
  EXPECT_EQ(names(), three);
}

TEST_F(Cleaning, WhatMatchesFirstIsDeletedFirst) {
  // Neither the times nor the numbers of the rows have a say.
  put({"autosave-2017-03-02-00-00-00", kCurrent, 1, "10"});
  put({"autosave-2017-03-03-00-00-00", kCurrent, 1, "20"});
  put({"autosave-2017-03-01-00-00-00", kCurrent, 1, "30"});
  const Texts order = matching_order();
  clean(2);
  EXPECT_EQ(system_log(), (SystemLog{{6, deleted(order[0])}, {6, deleted(order[1])}}));
  EXPECT_EQ(names(), Texts{order[2]});
}

TEST_F(Cleaning, WithoutAnIndexTheRowsOrderCounts) {
  sql("create table Config (id integer primary key, name, version, keybase, etc, type, save_time, "
      "load_time)");
  put_names({"autosave-2", "autosave-3", "autosave-1"});
  clean(2);
  EXPECT_EQ(system_log(), (SystemLog{{6, deleted("autosave-2")}, {6, deleted("autosave-3")}}));
  EXPECT_EQ(names(), Texts{"autosave-1"});
}

TEST_F(Cleaning, EveryNameThatBeginsWithAutosaveIsOne) {
  put_names({"autosave", "autosave-manual", "autosaveX", "autosave-2017-01-01-00-00-00"});
  clean(1);
  EXPECT_EQ(names(), Texts());
}

TEST_F(Cleaning, OtherNamesAreNotFound) {
  const Texts others{"Autosave-1", "AUTOSAVE-1", "my-autosave", " autosave", "autosav", "autosav-1",
                     "weekly",     "",           "corlu-config"};
  put_names(others);
  clean(1);
  EXPECT_EQ(records(), (LogRecords{clean_says(4, "maxautosaves = 1, find autosaves = 0", {4, 8})}));
  EXPECT_EQ(names(), others);
}

TEST_F(Cleaning, OtherVersionsCountAndGoWithTheirOwnNumber) {
  put({"autosave-1", 0});
  put({"autosave-2", 17230397439});
  put({"autosave-3", -1});
  put({"autosave-4", kCurrent});
  clean(2);
  EXPECT_EQ(statements(),
            (Texts{kFindAutosaves, "delete from 'Config' where name='autosave-1' and version=0",
                   "delete from 'Config' where name='autosave-2' and version=17230397439",
                   "delete from 'Config' where name='autosave-3' and version=-1"}));
  EXPECT_EQ(system_log(), (SystemLog{{6, "Deleted old confsave 'autosave-1' (version )"},
                                     {6, "Deleted old confsave 'autosave-2' (version 4.3.2)"},
                                     {6, "Deleted old confsave 'autosave-3' (version -1.255.255)"}}));
  EXPECT_EQ(rows(), (Rows{{"autosave-4", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(Cleaning, OneNameInSeveralVersionsIsSeveralAutosaves) {
  put({"autosave-1", 1});
  put({"autosave-1", 2});
  put({"autosave-1", 3});
  clean(3);
  EXPECT_EQ(records(), (LogRecords{clean_says(4, "maxautosaves = 3, find autosaves = 3", {4, 8}),
                                   says(kDelete, 4, "config name 'autosave-1'")}));
  EXPECT_EQ(rows(),
            (Rows{{"autosave-1", "2", "1", "1000", "NULL"}, {"autosave-1", "3", "1", "1000", "NULL"}}));
}

TEST_F(Cleaning, ANameIsNoFormat) {
  put_names({"autosave-%s%n%d"});
  clean(1);
  EXPECT_EQ(system_log(), (SystemLog{{6, "Deleted old confsave 'autosave-%s%n%d' (version 4.5.4)"}}));
  EXPECT_EQ(names(), Texts());
}

TEST_F(Cleaning, ARefusedDeleteIsToldAsADeletion) {
  put_names(three);
  keep_all_rows();
  clean(3);
  EXPECT_EQ(
      records(),
      (LogRecords{
          clean_says(4, "maxautosaves = 3, find autosaves = 3", {4, 8}),
          says(kDelete, 4, "config name 'autosave-1'"),
          says(kDelete, 2,
               "SQL error: kept. Query: " + delete_statement("autosave-1") + " (return code: 19)", {4})}));
  EXPECT_EQ(system_log(), (SystemLog{{6, deleted("autosave-1")}}));
  EXPECT_EQ(names(), three);
}

TEST_F(Cleaning, EachLevelLogsItsShare) {
  for (const int level : {0, 1, 2, 3}) {
    put_names({"autosave-1"});
    host.log_level = level;
    clean(1);
    EXPECT_EQ(records(), LogRecords());
    EXPECT_EQ(system_log(), (SystemLog{{6, deleted("autosave-1")}}));
  }
}

TEST_F(Cleaning, ASystemLogThatThrowsIsToldAndTheLoopGoesOn) {
  put({"autosave-1", kCurrent});
  put({"autosave-2", 0});
  put({"autosave-3", 17230397439});
  host.on_system_log = throwing(std::runtime_error("no system log"));
  clean(1);
  EXPECT_EQ(records(),
            (LogRecords{clean_says(4, "maxautosaves = 1, find autosaves = 3", {4, 8}),
                        says(kDelete, 4, "config name 'autosave-1'"),
                        clean_says(1, "Failed to delete old confsave 'autosave-1' (version 4.5.4)"),
                        says(kDelete, 4, "config name 'autosave-2'"),
                        clean_says(1, "Failed to delete old confsave 'autosave-2' (version )"),
                        says(kDelete, 4, "config name 'autosave-3'"),
                        clean_says(1, "Failed to delete old confsave 'autosave-3' (version 4.3.2)")}));
  EXPECT_EQ(system_log(), (SystemLog{{6, "Deleted old confsave 'autosave-1' (version 4.5.4)"},
                                     {6, "Deleted old confsave 'autosave-2' (version )"},
                                     {6, "Deleted old confsave 'autosave-3' (version 4.3.2)"}}));
  EXPECT_EQ(names(), Texts());
}

TEST_F(Cleaning, AFailureIsToldFromLevel1) {
  host.on_system_log = throwing(7);
  const LogRecord failed = clean_says(1, "Failed to delete old confsave 'autosave-1' (version 4.5.4)");
  const std::vector<std::pair<int, LogRecords>> shares{
      {0, {}}, {1, {failed}}, {2, {failed}}, {3, {failed}}};
  for (const auto& [level, expected] : shares) {
    put_names({"autosave-1"});
    host.log_level = level;
    clean(1);
    EXPECT_EQ(records(), expected) << level;
  }
}

TEST_F(Cleaning, OfSeveralOnlyTheOneThatThrowsIsToldAsFailed) {
  put_names(three);
  host.on_system_log = [this] {
    if (host.system_log.size() == 2) throw XTOOStatus(5, true);
  };
  host.log_level = 1;
  clean(1);
  EXPECT_EQ(records(),
            (LogRecords{clean_says(1, "Failed to delete old confsave 'autosave-2' (version 4.5.4)")}));
  EXPECT_EQ(names(), Texts());
}

TEST_F(Cleaning, ADeleteThatThrowsIsToldAndTheLoopGoesOn) {
  put_names(three);
  for (const Raise& raise : {throwing(XNotFound(0, true)), throwing(std::logic_error("no")), throwing(7)}) {
    fail_in_log("Delete", raise);
    clean(2);
    EXPECT_EQ(records(),
              (LogRecords{clean_says(4, "maxautosaves = 2, find autosaves = 3", {4, 8}),
                          clean_says(1, "Failed to delete old confsave 'autosave-1' (version 4.5.4)"),
                          says(kDelete, 4, "config name 'autosave-2'")}));
    EXPECT_EQ(statements(), (Texts{kFindAutosaves, delete_statement("autosave-2")}));
    EXPECT_EQ(system_log(), (SystemLog{{6, deleted("autosave-2")}}));
    EXPECT_EQ(names(), (Texts{"autosave-1", "autosave-3"}));
    put_names({"autosave-2"});
    host.reset();
  }
}

TEST_F(Cleaning, ATableThatCannotBeReadHoldsNoAutosave) {
  make_foreign_table();
  clean(1);
  EXPECT_EQ(records(),
            (LogRecords{
                says(kFindMatching, 2,
                     "SQL error: no such column: id. Query: " + kFindAutosaves + " (return code: 1)", {4}),
                clean_says(4, "maxautosaves = 1, find autosaves = 0", {4, 8})}));
}

// ---------------------------------------------------------------------------------------------------
// AutoSave

using Autosaving = Housekeeping;

TEST_F(Autosaving, TheFirstIsStoredUnderTheTime) {
  autosave(5);
  EXPECT_EQ(statements(),
            (Texts{kChooseLayout, kCreateTable, kFindAutosaves,
                   "select count(*) from 'Config' where name='autosave-<now>' and version=17264017408",
                   "delete from 'Config' where name='autosave-<now>' and version=17264017408",
                   "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
                   "('autosave-<now>',?,?,17264017408,<now>,1)"}));
  EXPECT_EQ(
      records(),
      (LogRecords{kTryTables, kTablesMade, clean_says(4, "maxautosaves = 5, find autosaves = 0", {4, 8}),
                  says(kDelete, 4, "config name 'autosave-<now>'"),
                  says(kCreate, 2, "Try to save configuration 'autosave-<now>' (version 17264017408)", {8}),
                  says(kCreate, 4, "sqlite3_total_changes: 1", {4}),
                  unique_says("config 'autosave-<now>' (version 4.5.4) successfully saved")}));
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackFull}));
  EXPECT_EQ(system_log(), SystemLog());
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", "17264017408", "1", "<now>", "NULL"}}));
}

TEST_F(Autosaving, WithRoomNothingIsDeleted) {
  put_names({"autosave-1", "autosave-2", "autosave-3"});
  autosave(5);
  EXPECT_EQ(statements(), Texts{kFindAutosaves} + saving("autosave-<now>"));
  EXPECT_EQ(system_log(), SystemLog());
  EXPECT_EQ(names(), (Texts{"autosave-1", "autosave-2", "autosave-3", "autosave-<now>"}));
}

TEST_F(Autosaving, WithRoomForJustOneNothingIsDeleted) {
  put_names({"autosave-1", "autosave-2"});
  autosave(3);
  EXPECT_EQ(names(), (Texts{"autosave-1", "autosave-2", "autosave-<now>"}));
}

TEST_F(Autosaving, AtTheLimitTheFirstMakesRoom) {
  put_names({"autosave-1", "autosave-2", "autosave-3"});
  autosave(3);
  EXPECT_EQ(statements(),
            (Texts{kFindAutosaves, delete_statement("autosave-1")} + saving("autosave-<now>")));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade,
                                   clean_says(4, "maxautosaves = 3, find autosaves = 3", {4, 8}),
                                   says(kDelete, 4, "config name 'autosave-1'")} +
                        saved_as("autosave-<now>", 2)));
  EXPECT_EQ(system_log(), (SystemLog{{6, deleted("autosave-1")}}));
  EXPECT_EQ(names(), (Texts{"autosave-2", "autosave-3", "autosave-<now>"}));
}

TEST_F(Autosaving, ALimitOf1LeavesTheNewOneAlone) {
  put_names({"autosave-1", "autosave-2", "autosave-3", "autosave-4"});
  autosave(1);
  EXPECT_EQ(system_log(), (SystemLog{{6, deleted("autosave-1")},
                                     {6, deleted("autosave-2")},
                                     {6, deleted("autosave-3")},
                                     {6, deleted("autosave-4")}}));
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, TheLimitIsKeptFromRunToRun) {
  pack_nothing();
  put_names({"autosave-1", "autosave-2"});
  for (int run = 0; run < 12; ++run) autosave(10);
  EXPECT_EQ(names().size(), 10U);
}

TEST_F(Autosaving, TheGreatestLimitKeepsAll) {
  put_names({"autosave-1"});
  autosave(4294967295);
  EXPECT_EQ(names(), (Texts{"autosave-1", "autosave-<now>"}));
}

TEST_F(Autosaving, ALimitOf0DeletesAllAndSavesOne) {
  put_names({"autosave-1", "autosave-2"});
  autosave(0);
  EXPECT_EQ(statements(),
            (Texts{kFindAutosaves, delete_statement("autosave-1"), delete_statement("autosave-2")} +
             saving("autosave-<now>")));
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, ALimitOf0HasNoSecondName) {
  in_one_second(
      [this](const std::string& name) {
        put_names({name});
        keep_all_rows();
      },
      [] { AutoSave("", conf_full, 0); });
  EXPECT_EQ(statements().back(), count_statement("autosave-<now>"));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(Autosaving, TheTypeIsPassedOn) {
  autosave(5, conf_part);
  EXPECT_EQ(commands(), (Texts{kPackEtc, kPackPart}));
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", "17264017408", "2", "<now>", "NULL"}}));
  fs::remove(database());
  autosave(5, conf_corlu);
  EXPECT_EQ(commands(), Texts{kPackCorlu});
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", "17264017408", "3", "<now>", "NULL"}}));
}

TEST_F(Autosaving, TheTimeIsLocal) {
  setenv("TZ", "<+1345>-13:45", 1);
  zone = 13 * 3600 + 45 * 60;
  autosave(5);
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, TheFirstArgumentHasNoEffect) {
  for (const std::string name : {"", "weekly", "o'hare", "autosave-1", "%s"}) {
    fs::remove(database());
    autosave(5, conf_full, name);
    EXPECT_EQ(statements(),
              (Texts{kChooseLayout, kCreateTable, kFindAutosaves} + saving("autosave-<now>")));
    EXPECT_EQ(rows(), (Rows{{"autosave-<now>", "17264017408", "1", "<now>", "NULL"}}));
  }
}

TEST_F(Autosaving, ThreeOfOneSecondAreCounted) {
  in_one_second([](const std::string&) {},
                [] {
                  for (int i = 0; i < 3; ++i) AutoSave("", conf_full, 10);
                });
  EXPECT_EQ(names(), (Texts{"autosave-<now>", "autosave-<now>-0", "autosave-<now>-1"}));
  EXPECT_EQ(statements(),
            (Texts{kFindAutosaves} + saving("autosave-<now>") +
             Texts{kFindAutosaves, count_statement("autosave-<now>")} + saving("autosave-<now>-0") +
             Texts{kFindAutosaves, count_statement("autosave-<now>"), count_statement("autosave-<now>-0")} +
             saving("autosave-<now>-1")));
  EXPECT_EQ(records().back(), unique_says("config 'autosave-<now>-1' (version 4.5.4) successfully saved"));
}

TEST_F(Autosaving, TheFirstFreeCountIsTaken) {
  pack_nothing();
  in_one_second(
      [this](const std::string& name) {
        put_names({name, name + "-0", name + "-1", name + "-3"});
      },
      [] { AutoSave("", conf_full, 10); });
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade,
                                   clean_says(4, "maxautosaves = 10, find autosaves = 4", {4, 8})} +
                        saved_as("autosave-<now>-2", 1)));
  EXPECT_EQ(names(), (Texts{"autosave-<now>", "autosave-<now>-0", "autosave-<now>-1", "autosave-<now>-3",
                            "autosave-<now>-2"}));
}

TEST_F(Autosaving, TheCountEndsBelowTheLimit) {
  in_one_second(
      [this](const std::string& name) {
        put_names({name, name + "-0", name + "-1", name + "-2"});
        keep_all_rows();
        forget();
      },
      [this] {
        host.log_level = 1;
        AutoSave("", conf_full, 3);
      });
  const Texts all = statements();
  EXPECT_EQ(Texts(all.end() - 4, all.end()),
            (Texts{count_statement("autosave-<now>"), count_statement("autosave-<now>-0"),
                   count_statement("autosave-<now>-1"), count_statement("autosave-<now>-2")}));
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(names(), (Texts{"autosave-<now>", "autosave-<now>-0", "autosave-<now>-1", "autosave-<now>-2"}));
}

TEST_F(Autosaving, TheLastCountIsOneLessThanTheLimit) {
  pack_nothing();
  in_one_second(
      [this](const std::string& name) {
        put_names({name, name + "-0", name + "-1"});
        keep_all_rows();
      },
      [] { AutoSave("", conf_full, 3); });
  EXPECT_EQ(names().back(), "autosave-<now>-2");
}

TEST_F(Autosaving, TheCountHasNoDigitGroups) {
  pack_nothing();
  const GroupedDigits grouped;
  in_one_second(
      [this](const std::string& name) {
        put_names({name});
        sql("with recursive n(i) as (select 0 union all select i + 1 from n where i < 999) insert into "
            "Config (name, version) select '" +
            name + "-' || i, 17264017408 from n");
      },
      [] { AutoSave("", conf_full, 4294967295); });
  EXPECT_EQ(names().size(), 1002U);
  EXPECT_EQ(names().back(), "autosave-<now>-1000");
}

TEST_F(Autosaving, WithALimitOf1TheNameOfTheSecondIsUsedAgain) {
  pack_nothing();
  in_one_second([](const std::string&) {},
                [] {
                  AutoSave("", conf_full, 1);
                  AutoSave("", conf_part, 1);
                });
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", "17264017408", "2", "<now>", "NULL"}}));
  EXPECT_EQ(system_log(), (SystemLog{{6, deleted("autosave-<now>")}}));
}

TEST_F(Autosaving, AtTheLimitTheNameOfTheSecondIsUsedAgain) {
  pack_nothing();
  in_one_second([](const std::string&) {},
                [] {
                  for (int i = 0; i < 4; ++i) AutoSave("", conf_full, 3);
                });
  EXPECT_EQ(names(), (Texts{"autosave-<now>-0", "autosave-<now>-1", "autosave-<now>"}));
}

TEST_F(Autosaving, TheNameUnderAnotherVersionDoesNotBlock) {
  pack_nothing();
  in_one_second(
      [this](const std::string& name) {
        put({name, 0});
        put({name, kCurrent + 1});
      },
      [] { AutoSave("", conf_full, 10); });
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", "0", "1", "1000", "NULL"},
                          {"autosave-<now>", "17264017409", "1", "1000", "NULL"},
                          {"autosave-<now>", "17264017408", "1", "<now>", "NULL"}}));
}

TEST_F(Autosaving, OtherConfigurationsAreNotTouched) {
  put_names({"weekly", "Autosave-1", "my-autosave", "corlu-config", "autosave-manual"});
  put({"weekly", 0});
  autosave(1);
  EXPECT_EQ(rows(), (Rows{{"weekly", "17264017408", "1", "1000", "NULL"},
                          {"Autosave-1", "17264017408", "1", "1000", "NULL"},
                          {"my-autosave", "17264017408", "1", "1000", "NULL"},
                          {"corlu-config", "17264017408", "1", "1000", "NULL"},
                          {"weekly", "0", "1", "1000", "NULL"},
                          {"autosave-<now>", "17264017408", "1", "<now>", "NULL"}}));
}

TEST_F(Autosaving, AFailedTarLeavesAndTheSurplusIsGone) {
  put_names({"autosave-1", "autosave-2", "autosave-3"});
  host.on_command = test::fail_commands("cd /mnt/main/etc/ ", 7);
  run([] {
    const auto call = [] { AutoSave("", conf_full, 2); };
    const auto error = test::thrown_by<XExternalFailure>(call);
    EXPECT_EQ(error.Status(), 36);
    EXPECT_STREQ(error.ErrorMessage(), "");
  });
  EXPECT_EQ(statements(),
            (Texts{kFindAutosaves, delete_statement("autosave-1"), delete_statement("autosave-2"),
                   count_statement("autosave-<now>"), delete_statement("autosave-<now>")}));
  EXPECT_EQ(records(), (LogRecords{kTryTables,
                                   kTablesMade,
                                   clean_says(4, "maxautosaves = 2, find autosaves = 3", {4, 8}),
                                   says(kDelete, 4, "config name 'autosave-1'"),
                                   says(kDelete, 4, "config name 'autosave-2'"),
                                   says(kDelete, 4, "config name 'autosave-<now>'"),
                                   {1,
                                    "void ConfSave::pack(const string&, const string&, const string&)",
                                    "pack",
                                    "source/archive",
                                    "failed to create tar archive with error code: 7",
                                    {4}}}));
  EXPECT_EQ(system_log(), (SystemLog{{6, deleted("autosave-1")}, {6, deleted("autosave-2")}}));
  EXPECT_EQ(names(), Texts{"autosave-3"});
}

TEST_F(Autosaving, AMissingDirectoryForTemporaryFilesLeaves) {
  put_names({"autosave-1"});
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  run([] {
    const auto error = test::thrown_by<XTOOStatus>([] { AutoSave("", conf_full, 1); });
    EXPECT_EQ(error.Status(), 17);
    EXPECT_STREQ(error.ErrorMessage(), "No such file or directory");
  });
  EXPECT_EQ(names(), Texts());
}

TEST_F(Autosaving, ANameTakenMeanwhileLeaves) {
  host.on_command = [this](const std::string&) -> std::optional<int> {
    if (host.commands.size() == 2) sql("update Config set name = replace(name, 'other', 'autosave')");
    return std::nullopt;
  };
  in_one_second(
      [this](const std::string& name) {
        put_names({std::regex_replace(name, std::regex("autosave"), "other")});
      },
      [] { EXPECT_THROW(AutoSave("", conf_full, 5), XConstraint); });
  EXPECT_EQ(rows(), (Rows{{"autosave-<now>", "17264017408", "1", "1000", "NULL"}}));
}

TEST_F(Autosaving, WhatTheCommandRunnerThrowsLeaves) {
  const auto thrown = [this](auto exception) {
    host.on_command = [exception](const std::string&) -> std::optional<int> { throw exception; };
    std::optional<decltype(exception)> left;
    run([&] { left = test::thrown_by<decltype(exception)>([] { AutoSave("", conf_full, 5); }); });
    return *left;
  };
  EXPECT_EQ(thrown(XNotFound(4, true)).Status(), 4);
  EXPECT_STREQ(thrown(std::runtime_error("no")).what(), "no");
  EXPECT_EQ(thrown(7), 7);
  EXPECT_EQ(rows(), Rows());
}

TEST_F(Autosaving, WhatTheStorageThrowsLeaves) {
  make_foreign_table();
  for (const std::string function : {"Storage", "FindMatching", "Exists"}) {
    fail_in_log(function, throwing(std::runtime_error(function)));
    run([&] {
      const auto call = [] { AutoSave("", conf_full, 5); };
      EXPECT_EQ(test::thrown_by<std::runtime_error>(call).what(), function);
    });
    host.reset();
  }
}

TEST_F(Autosaving, WhatTheDeletingOfAFreeNameThrowsLeaves) {
  make_table();
  fail_in_log("Delete", throwing(std::runtime_error("no")));
  run([] { EXPECT_THROW(AutoSave("", conf_full, 5), std::runtime_error); });
  EXPECT_EQ(statements(), (Texts{kFindAutosaves, count_statement("autosave-<now>")}));
  EXPECT_EQ(rows(), Rows());
}

TEST_F(Autosaving, TheNameIsThatOfTheTimeBeforeTheStorageIsOpened) {
  pack_nothing();
  host.on_record = [](const std::string& function) {
    if (function != "Storage") return;
    setenv("TZ", "XYZ-5", 1);
    tzset();
  };
  autosave(5);
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, ATableThatCannotBeReadStoresNothingSilently) {
  make_foreign_table();
  host.log_level = 1;
  autosave(2);
  EXPECT_EQ(records(), LogRecords());
  host.log_level = 4;
  autosave(2);
  const auto unread = [](const std::string& name) {
    return says(kExists, 2,
                "SQL error: no such column: name. Query: " + count_statement(name) + " (return code: 1)",
                {4});
  };
  EXPECT_EQ(records(),
            (LogRecords{
                kTryTables, kTablesMade,
                says(kFindMatching, 2,
                     "SQL error: no such column: id. Query: " + kFindAutosaves + " (return code: 1)", {4}),
                clean_says(4, "maxautosaves = 2, find autosaves = 0", {4, 8}), unread("autosave-<now>"),
                unread("autosave-<now>-0"), unread("autosave-<now>-1")}));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(system_log(), SystemLog());
}

TEST_F(Autosaving, AFileThatIsNoDatabaseStoresNothingSilently) {
  damage_database();
  host.log_level = 1;
  autosave(2);
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(commands(), Texts());
}

TEST_F(Autosaving, StorageThatCannotBeOpenedIsToldAsASuccess) {
  make_storage_unopenable();
  autosave(5);
  EXPECT_EQ(records(),
            (LogRecords{
                kCannotOpen,
                says(kFindMatching, 2, "SQL error: . Query: " + kFindAutosaves + " (return code: 21)", {4}),
                clean_says(4, "maxautosaves = 5, find autosaves = 0", {4, 8}),
                unique_says("config 'autosave-<now>' (version 4.5.4) successfully saved")}));
  EXPECT_EQ(commands(), Texts());
}

TEST_F(Autosaving, AtLevel1ASuccessIsSilent) {
  put_names({"autosave-1"});
  host.log_level = 1;
  autosave(1);
  EXPECT_EQ(records(), LogRecords());
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, ASystemLogThatThrowsDoesNotKeepTheSaving) {
  put_names({"autosave-1", "autosave-2"});
  host.on_system_log = throwing(std::runtime_error("no system log"));
  host.log_level = 1;
  autosave(1);
  EXPECT_EQ(records(),
            (LogRecords{clean_says(1, "Failed to delete old confsave 'autosave-1' (version 4.5.4)"),
                        clean_says(1, "Failed to delete old confsave 'autosave-2' (version 4.5.4)")}));
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

TEST_F(Autosaving, ItWaitsForAnotherProcess) {
  put_names({"autosave-1"});
  forget();
  {
    const test::LockHolder other(database(), 300);
    AutoSave("", conf_full, 1);
  }
  EXPECT_EQ(names(), Texts{"autosave-<now>"});
}

// ---------------------------------------------------------------------------------------------------
// CheckOld

Config saved_at(const std::string& name, int64 time) {
  Config config(kCurrent);
  config.name = name;
  config.save_time = time;
  return config;
}

TEST(IsOldAutosave, MoreThan31DaysAreOld) {
  EXPECT_FALSE(is_old_autosave(saved_at("autosave-1", 1488377109), 1488377109));
  EXPECT_FALSE(is_old_autosave(saved_at("autosave-1", 1488377109), 1491055508));
  EXPECT_FALSE(is_old_autosave(saved_at("autosave-1", 1488377109), 1491055509));
  EXPECT_TRUE(is_old_autosave(saved_at("autosave-1", 1488377109), 1491055510));
}

TEST(IsOldAutosave, AnyTimeHasAnAge) {
  EXPECT_FALSE(is_old_autosave(saved_at("autosave-1", INT64_MAX), 1488377109));
  EXPECT_TRUE(is_old_autosave(saved_at("autosave-1", INT64_MIN), 1488377109));
  EXPECT_FALSE(is_old_autosave(saved_at("autosave-1", -2678400), 0));
  EXPECT_TRUE(is_old_autosave(saved_at("autosave-1", -2678401), 0));
  EXPECT_FALSE(is_old_autosave(saved_at("autosave-1", 0), 2678400));
  EXPECT_TRUE(is_old_autosave(saved_at("autosave-1", 0), 2678401));
  EXPECT_TRUE(is_old_autosave(saved_at("autosave-1", 9223372036852097406), INT64_MAX));
  EXPECT_FALSE(is_old_autosave(saved_at("autosave-1", 9223372036852097407), INT64_MAX));
}

TEST(IsOldAutosave, TheFirstEightLettersTell) {
  for (const std::string name : {"autosave", "autosaveX", "autosave-manual", "autosave-2017-01-01-00-00-00",
                                 "autosaved", "autosave "}) {
    EXPECT_TRUE(is_old_autosave(saved_at(name, 0), 1488377109)) << name;
  }
  for (const std::string name : {"", "a", "autosav", "autosav-", "Autosave-2017-01-01-00-00-00", "AUTOSAVE",
                                 "my-autosave", " autosave", "autoSave-1", "weekly", "corlu-config"}) {
    EXPECT_FALSE(is_old_autosave(saved_at(name, 0), 1488377109)) << name;
  }
}

using OldCheck = Housekeeping;

TEST_F(OldCheck, AnEmptyStorageHasNone) {
  EXPECT_FALSE(check_old());
  EXPECT_EQ(statements(), (Texts{kChooseLayout, kCreateTable, kSelectAll}));
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kList, 2, "Requested configuration list is empty (version=0)", {8})}));
}

TEST_F(OldCheck, AnOldAutosaveIsFoundAndNothingChanges) {
  put({"autosave-1", kCurrent, 1, "1000", "2000"});
  EXPECT_TRUE(check_old());
  EXPECT_EQ(statements(), (Texts{"select name, version, type, save_time, load_time from 'Config' where "
                                 "name!='corlu-config'"}));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade}));
  EXPECT_EQ(commands(), Texts());
  EXPECT_EQ(system_log(), SystemLog());
  EXPECT_EQ(rows(), (Rows{{"autosave-1", "17264017408", "1", "1000", "2000"}}));
}

TEST_F(OldCheck, OneSecondAbove31DaysIsOld) {
  EXPECT_TRUE(check_old_with({"autosave-1", kCurrent}, k31Days + 1));
}

TEST_F(OldCheck, Exactly31DaysAreNotOld) {
  EXPECT_FALSE(check_old_with({"autosave-1", kCurrent}, k31Days));
  EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade}));
}

TEST_F(OldCheck, ARecentAutosaveIsNotOld) {
  EXPECT_FALSE(check_old_with({"autosave-1", kCurrent}, 0));
  EXPECT_FALSE(check_old_with({"autosave-1", kCurrent}, -100));
}

TEST_F(OldCheck, TheLoadTimeMakesNoAutosaveYounger) {
  test::RowSpec row{"autosave-1", kCurrent};
  row.load_time = std::to_string(std::time(nullptr));
  EXPECT_TRUE(check_old_with(row, k31Days + 1));
}

TEST_F(OldCheck, OtherNamesAreNeverOld) {
  for (const std::string name :
       {"weekly", "autosav", "a", "", "Autosave-2017-01-01-00-00-00", "my-autosave"}) {
    EXPECT_FALSE(check_old_with({name, kCurrent}, int64{365} * 86400)) << name;
  }
}

TEST_F(OldCheck, EveryNameThatBeginsWithAutosaveCanBeOld) {
  for (const std::string name : {"autosave", "autosaveX", "autosave-manual"}) {
    EXPECT_TRUE(check_old_with({name, kCurrent}, k31Days + 1)) << name;
  }
}

TEST_F(OldCheck, EveryVersionCanBeOld) {
  for (const int64 version : {int64{0}, int64{1}, int64{-1}, std::numeric_limits<int64>::max()}) {
    EXPECT_TRUE(check_old_with({"autosave-1", version}, k31Days + 1)) << version;
  }
}

TEST_F(OldCheck, ThePacketFiltersOwnRecordIsNeverLookedAt) {
  put({"corlu-config", 0});
  EXPECT_FALSE(check_old());
  EXPECT_EQ(records(),
            (LogRecords{kTryTables, kTablesMade,
                        says(kList, 2, "Requested configuration list is empty (version=0)", {8})}));
}

TEST_F(OldCheck, AnOldOneAmongOthersIsFound) {
  const std::string now = std::to_string(std::time(nullptr));
  put({"weekly", kCurrent});
  put({"autosave-9", kCurrent, 1, now});
  EXPECT_FALSE(check_old());
  put({"autosave-1", 0});
  put({"autosave-8", kCurrent, 1, now});
  EXPECT_TRUE(check_old());
}

TEST_F(OldCheck, AnAutosaveWithoutATimeIsOld) {
  put({"autosave-1", kCurrent, 1, "NULL"});
  EXPECT_TRUE(check_old());
}

TEST_F(OldCheck, TimesFrom2038OnLookOld) {
  put({"autosave-1", kCurrent, 1, "2147483647"});
  EXPECT_FALSE(check_old());
  put({"autosave-2", kCurrent, 1, "2147483648"});
  EXPECT_TRUE(check_old());
}

TEST_F(OldCheck, StorageThatCannotBeOpenedHasNone) {
  make_storage_unopenable();
  EXPECT_FALSE(check_old());
  EXPECT_EQ(records(), LogRecords{kCannotOpen});
}

TEST_F(OldCheck, ATableThatCannotBeReadHasNone) {
  make_foreign_table();
  EXPECT_FALSE(check_old());
  EXPECT_EQ(records(),
            (LogRecords{
                kTryTables, kTablesMade,
                says(kList, 2,
                     "SQL error: no such column: name. Query: " + kSelectAll + " (return code: 1)", {4})}));
}

TEST_F(OldCheck, AnExceptionOfTheListingIsToldAndMeansNone) {
  make_table();
  for (const Raise& raise : {throwing(XNotFound(0, true)), throwing(std::logic_error("no")), throwing(7)}) {
    fail_in_log("List", raise);
    EXPECT_FALSE(check_old());
    EXPECT_EQ(records(), (LogRecords{kTryTables, kTablesMade, kUnknownException}));
    host.reset();
  }
}

TEST_F(OldCheck, AnExceptionOfTheOpeningIsToldAndMeansNone) {
  put({"autosave-1", kCurrent});
  for (const Raise& raise : {throwing(XNotFound(0, true)), throwing(std::logic_error("no")), throwing(7)}) {
    fail_in_log("Storage", raise);
    EXPECT_FALSE(check_old());
    EXPECT_EQ(records(), LogRecords{kUnknownException});
    EXPECT_EQ(statements(), Texts());
    host.reset();
  }
}

TEST_F(OldCheck, ALogThatThrowsEachTimeMeansNone) {
  put({"autosave-1", kCurrent});
  for (const Raise& raise : {throwing(std::logic_error("no")), throwing(7)}) {
    host.on_record = [&](const std::string&) { raise(); };
    EXPECT_FALSE(check_old());
    EXPECT_EQ(records(), LogRecords());
    host.reset();
  }
}

TEST_F(OldCheck, AnExceptionIsToldFromLevel1) {
  make_table();
  const std::vector<std::pair<int, LogRecords>> shares{{0, {}}, {1, {kUnknownException}}};
  for (const auto& share : shares) {
    // The listing's record of level 2 is what throws. The level is another by the time that it is caught.
    host.log_level = 2;
    fail_in_log("List", [&] {
      host.log_level = share.first;
      throw 7;
    });
    EXPECT_FALSE(check_old());
    EXPECT_EQ(records(), share.second);
    host.reset();
  }
}

TEST_F(OldCheck, ItWaitsForAnotherProcess) {
  put({"autosave-1", kCurrent});
  const test::LockHolder other(database(), 300);
  EXPECT_TRUE(CheckOld());
}

}  // namespace
