#include "storage/authorizer.h"

#include <regex>

#include "support/console.h"
#include "support/opened_storage.h"

namespace {

using namespace ConfSave;
using namespace test;

struct Authorizer : OpenedStorage {
  /// The code that SQLite returns for a statement on the storage's connection.
  int code_of(const std::string& statement) const {
    return sqlite3_exec(connection, statement.c_str(), nullptr, nullptr, nullptr);
  }
};

TEST_F(Authorizer, OtherStatementsAreRefused) {
  Database(database())
      .run("create view v as select 1; create index i on Config(type); create table other (x)");
  open();
  for (const char* statement :
       {"attach 'x' as x",
        "detach main",
        "pragma user_version",
        "pragma writable_schema=on",
        "select * from pragma_table_info('Config')",
        "alter table Config rename to x",
        "drop table Config",
        "drop view v",
        "drop index i",
        "reindex",
        "analyze",
        "create table x (y)",
        "create temp table x (y)",
        "create table x as select 1",
        "create index x on Config(name)",
        "create view x as select 1",
        "create temp view x as select 1",
        "create trigger x after insert on Config begin select 1; end",
        "create temp trigger x after insert on Config begin select 1; end",
        "create virtual table x using fts5(y)",
        "pragma page_size=512",
        "select load_extension('x')",
        "select LOAD_EXTENSION('x')",
        "select 1 from Config order by (select name from PRAGMA_table_info('Config'))",
        "select 1 from Config order by (with x as (select file from pragma_database_list) select file from "
        "x)",
        "update Config set name='x'",
        "update Config set load_time=1, id=2",
        "update other set x=1",
        "vacuum into 'x'",
        "update sqlite_master set sql='x'",
        "delete from sqlite_master"}) {
    const int code = code_of(statement);
    EXPECT_TRUE(code == SQLITE_AUTH || code == SQLITE_ERROR) << statement << ": " << code;
  }
  EXPECT_EQ(query("select name from sqlite_schema where name not like 'sqlite_%' order by name"),
            (Rows{{"Config"}, {"i"}, {"other"}, {"v"}}));
  EXPECT_EQ(query("pragma user_version"), Rows{{"0"}});
}

TEST_F(Authorizer, StatementsOfTheStorageAreAllowed) {
  for (const char* statement :
       {"begin exclusive", "insert into Config (name, version) values ('x', 1)",
        "update Config set load_time=5 where id=1", "select count(*) from Config where name='x'",
        "select name from Config order by lower(name), random()",
        "select 1 from Config where name glob 'x*'", "delete from Config where name='x'", "commit",
        "savepoint s", "rollback to s", "release s"}) {
    EXPECT_EQ(code_of(statement), SQLITE_OK) << statement << ": " << sqlite3_errmsg(connection);
  }
}

TEST_F(Authorizer, DatabaseIsDefendedAndNothingElseOfTheConnectionChanges) {
  EXPECT_EQ(sqlite3_limit(connection, SQLITE_LIMIT_ATTACHED, -1), 0);
  for (const int setting : {SQLITE_DBCONFIG_DEFENSIVE, SQLITE_DBCONFIG_ENABLE_TRIGGER}) {
    int on = 0;
    EXPECT_EQ(sqlite3_db_config(connection, setting, -1, &on), SQLITE_OK);
    EXPECT_EQ(on, 1) << setting;
  }
  const Database plain(database());
  for (const int limit : {SQLITE_LIMIT_LENGTH, SQLITE_LIMIT_SQL_LENGTH}) {
    EXPECT_EQ(sqlite3_limit(connection, limit, -1), sqlite3_limit(plain.get(), limit, -1));
  }
}

TEST_F(Authorizer, TriggerOfTheDatabaseMayUpdateAnyTable) {
  rearrange(
      "create table seen (name, count); insert into seen values ('x', 0); create trigger t after insert on "
      "Config begin update seen set count=count+1; update Config set save_time=7 where id=new.id; end");
  EXPECT_EQ(code_of("insert into Config (name, version) values ('x', 1)"), SQLITE_OK);
  EXPECT_EQ(query("select count from seen"), Rows{{"1"}});
  EXPECT_EQ(query("select save_time from Config"), Rows{{"7"}});
}

TEST_F(Authorizer, NamesAreComparedWithoutCase) {
  storage.reset();
  write_file(database(), "");
  rearrange("create table CONFIG (ID integer primary key, NAME, VERSION, LOAD_TIME)");
  EXPECT_EQ(code_of("insert into Config (name, version) values ('x', 1)"), SQLITE_OK);
  EXPECT_EQ(code_of("update 'Config' set load_time=5 where id=1"), SQLITE_OK);
  EXPECT_EQ(query("select load_time from Config"), Rows{{"5"}});
}

TEST_F(Authorizer, TriggerMayFeedAVirtualTable) {
  for (const char* module : {"fts4(name)", "fts5(name)", "rtree(name, low, high)"}) {
    rearrange(
        "drop table if exists seen; drop trigger if exists added; drop trigger if exists gone; "
        "create virtual table seen using " +
        std::string(module) +
        "; create trigger added after insert on Config begin insert into seen (rowid, name) values "
        "(new.id, new.id); end; create trigger gone after delete on Config begin delete from seen "
        "where rowid=old.id; end");
    EXPECT_EQ(code_of("insert into Config (name, version) values ('x', 1)"), SQLITE_OK)
        << module << ": " << sqlite3_errmsg(connection);
    EXPECT_EQ(query("select count(*) from seen"), Rows{{"1"}}) << module;
    EXPECT_EQ(code_of("delete from Config"), SQLITE_OK) << module << ": " << sqlite3_errmsg(connection);
    EXPECT_EQ(query("select count(*) from seen"), Rows{{"0"}}) << module;
  }
  // Virtual tables keep statements open until the connection is closed.
  storage.reset();
}

TEST_F(Authorizer, VirtualTableMayUpdateItsOwnTables) {
  std::string sql = "create virtual table seen using fts3(name)";
  for (int i = 0; i < 40; ++i) sql += "; insert into seen(name) values('w" + std::to_string(i) + "')";
  rearrange(
      sql +
      "; create trigger added after insert on Config begin insert into seen(seen) values('merge=2,2'); "
      "end");
  const Rows segments = query("select count(*) from seen_segdir");
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(code_of("insert into Config (name, version) values ('x', " + std::to_string(i) + ")"),
              SQLITE_OK)
        << sqlite3_errmsg(connection);
  }
  EXPECT_NE(query("select count(*) from seen_segdir"), segments);
  storage.reset();
}

// Whole scenarios, with the authorizer and without

/// What an operation prints, what it logs, and the database afterwards.
using Transcript = std::tuple<std::string, LogRecords, Rows>;

struct Scenario {
  const char* title;
  const char* typed;
  std::function<void()> run;
};

struct AuthorizerTranscript : Gateway {
  AuthorizerTranscript() { make_configuration(); }

  Transcript play(const Scenario& scenario, bool restricted) {
    shell("rm -f " + database());
    Database(database()).run(kCreateTable);
    for (const char* name : {"weekly", "autosave-1", "corlu-config"}) {
      insert_row(database(), {name, 0});
      insert_row(database(), {name, kCurrent});
    }
    host.reset();
    // The authorizer is installed when the constructor writes its last record.
    host.on_record = [this, restricted](const std::string& function) {
      if (restricted || function != "Storage") return;
      sqlite3* const db = recorder.connection();
      sqlite3_set_authorizer(db, nullptr, nullptr);
      sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 10);
      sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 0, nullptr);
    };
    Console console(scenario.typed);
    scenario.run();
    return {console.transcript(), records(), dump()};
  }

  /// The schema, the version that a pragma sets, and all rows.
  Rows dump() const {
    Rows all = query("select type, name, sql from sqlite_schema") + query("pragma user_version");
    if (query("select 1 from sqlite_schema where name='Config'").empty()) return all;
    return all +
           query("select id, name, version, type, save_time, load_time, length(keybase) > 0 from Config");
  }

  StatementRecorder recorder;
};

void answer(bool result) { std::cout << result << '\n'; }

const Scenario kHarmless[] = {
    {"save of a new name", "", [] { answer(save("fresh", conf_full, 0, false)); }},
    {"save over a row of no version", "yes\n", [] { answer(save("weekly", conf_full, 0, false)); }},
    {"save by force", "", [] { answer(save("weekly", conf_part, kCurrent, true)); }},
    {"load", "no\nYes, do as I say\n", [] { load("weekly", nullptr, kCurrent, false); }},
    {"load of several", "", [] { load("*", nullptr, 0, true); }},
    {"autosave", "", [] { AutoSave("", conf_full, 1); }},
    {"stale check", "", [] { answer(CheckOld()); }},
    {"App::lst", "", [] { App::lst(); }},
    {"App::save", "y\n", [] { answer(App::save("weekly", conf_corlu)); }},
    {"App::del", "", [] { App::del("weekly"); }},
    {"App::load", "n\nYes, do as I say\n", [] { App::load("weekly"); }},
    {"a name that is half a statement", "", [] { App::del("x' or name='weekly"); }},
    {"a pattern with an apostrophe", "", [] { load("x' or '1'='1", nullptr, 0, true); }},
};

TEST_F(AuthorizerTranscript, HarmlessScenariosAreUnchanged) {
  // The two runs of a scenario may be in different seconds, and an autosave is named after its time.
  const auto without_time = [](const Transcript& transcript) {
    return std::regex_replace(testing::PrintToString(transcript), std::regex("autosave-2[-0-9]*"),
                              "autosave-<time>");
  };
  for (const Scenario& scenario : kHarmless) {
    const Transcript unrestricted = play(scenario, false);
    EXPECT_EQ(without_time(play(scenario, true)), without_time(unrestricted)) << scenario.title;
    EXPECT_FALSE(std::get<LogRecords>(unrestricted).empty()) << scenario.title;
  }
}

TEST_F(AuthorizerTranscript, HostileNameIsARefusedStatement) {
  const Rows untouched = std::get<Rows>(play({"", "", [] { const Storage storage; }}, true));
  for (const std::string statement :
       {"drop table Config", "update 'Config' set name='y'", "attach ':memory:' as y",
        "pragma user_version=7", "create table y (z)", "create view y as select 1"}) {
    const Scenario scenario{"", "", [&] { App::del("x'; " + statement + "; --"); }};
    const Transcript restricted = play(scenario, true);
    const auto& [console, log, rows] = restricted;
    EXPECT_EQ(console, "") << statement;
    EXPECT_EQ(rows, untouched) << statement;
    EXPECT_EQ(log.back().text, "SQL error: not authorized. Query: delete from 'Config' where name='x'; " +
                                   statement + "; --' and version=0 (return code: 23)");
    EXPECT_NE(play(scenario, false), restricted) << statement << " is harmless without the authorizer";
  }
}

}  // namespace
