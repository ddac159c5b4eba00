#include "storage/authorizer.h"

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
  const Texts other_files{"attach 'x' as x", "detach main", "vacuum into 'x'"};
  const Texts pragmas{"pragma user_version", "pragma writable_schema=on", "pragma page_size=512"};
  const Texts pragma_functions{
      "select * from pragma_table_info('Config')",
      "select 1 from Config order by (select name from PRAGMA_table_info('Config'))",
      "select 1 from Config order by (with x as (select file from pragma_database_list) select file from "
      "x)"};
  const Texts new_tables{"create table x (y)", "create temp table x (y)", "create table x as select 1",
                         "create virtual table x using fts5(y)"};
  const Texts new_objects{"create index x on Config(name)", "create view x as select 1",
                          "create temp view x as select 1",
                          "create trigger x after insert on Config begin select 1; end",
                          "create temp trigger x after insert on Config begin select 1; end"};
  const Texts old_objects{"alter table Config rename to x", "drop table Config", "drop view v",
                          "drop index i"};
  const Texts others{"reindex", "analyze", "select load_extension('x')", "select LOAD_EXTENSION('x')"};
  const Texts updates{"update Config set name='x'", "update Config set load_time=1, id=2",
                      "update other set x=1", "update sqlite_master set sql='x'",
                      "delete from sqlite_master"};
  for (const std::string& statement : other_files + pragmas + pragma_functions + new_tables + new_objects +
                                          old_objects + others + updates) {
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

struct AuthorizerTranscript : Gateway {
  /// What deleting a name of version 0 logs, and the schema, the version that a pragma sets, and the names.
  std::pair<LogRecords, Rows> del(const std::string& name, bool restricted) {
    shell("rm -f " + database());
    put({"weekly", 0});
    put({"weekly", kCurrent});
    host.reset();
    // The authorizer is installed when the constructor writes its last record.
    host.on_record = [this, restricted](const std::string& function) {
      if (restricted || function != "Storage") return;
      sqlite3* const db = recorder.connection();
      sqlite3_set_authorizer(db, nullptr, nullptr);
      sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 10);
      sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 0, nullptr);
    };
    Console console;
    App::del(name);
    EXPECT_EQ(console.transcript(), "");
    Rows database = query("select type, name, sql from sqlite_schema") + query("pragma user_version");
    if (!query("select 1 from sqlite_schema where name='Config'").empty()) {
      database = database + query("select id, name, version, save_time, load_time from Config");
    }
    return {records(), database};
  }
};

TEST_F(AuthorizerTranscript, HostileNameIsARefusedStatement) {
  const Rows untouched = del("nobody", true).second;
  for (const std::string statement :
       {"drop table Config", "update 'Config' set name='y'", "attach ':memory:' as y",
        "pragma user_version=7", "create table y (z)", "create view y as select 1"}) {
    const std::string name = "x'; " + statement + "; --";
    const auto restricted = del(name, true);
    EXPECT_EQ(restricted.second, untouched) << statement;
    EXPECT_EQ(restricted.first.back().text,
              "SQL error: not authorized. Query: delete from 'Config' where name='x'; " + statement +
                  "; --' and version=0 (return code: 23)");
    EXPECT_NE(del(name, false), restricted) << statement << " is harmless without the authorizer";
  }
}

}  // namespace
