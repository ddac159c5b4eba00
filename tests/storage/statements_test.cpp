#include "storage/statements.h"

#include <cstdint>

#include "storage/sqlite.h"
#include "support/gateway.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

/// No text has digit groups, whatever the host's locale is.
class StatementText : public testing::Test {
  const GroupedDigits grouped_;
};

TEST_F(StatementText, CreateTable) {
  const std::string text =
      "create table 'Config' (id integer primary key autoincrement, name varchar(80) not null, version "
      "integer not null, keybase blob, etc blob, type integer, save_time timestamp, load_time timestamp, "
      "unique (name, version) )";
  EXPECT_EQ(sql::create_table(), text);
  EXPECT_EQ(text.size(), 218U);
  EXPECT_EQ(sql::table_exists_error(), "table 'Config' already exists");
}

TEST_F(StatementText, CountRows) {
  EXPECT_EQ(sql::count_rows("weekly", kCurrent),
            "select count(*) from 'Config' where name='weekly' and version=17264017408");
  EXPECT_EQ(sql::count_rows("o'hare", -1),
            "select count(*) from 'Config' where name='o'hare' and version=-1");
}

TEST_F(StatementText, DeleteRow) {
  EXPECT_EQ(sql::delete_row("weekly", 0), "delete from 'Config' where name='weekly' and version=0");
  EXPECT_EQ(sql::delete_row("weekly", INT64_MIN),
            "delete from 'Config' where name='weekly' and version=-9223372036854775808");
}

TEST_F(StatementText, InsertRow) {
  EXPECT_EQ(sql::insert_row("weekly", kCurrent, 1488377100, conf_full),
            "insert into 'Config' (name,keybase,etc,version, save_time, type) values "
            "('weekly',?,?,17264017408,1488377100,1)");
  EXPECT_EQ(
      sql::insert_row("weekly", -5, -6, static_cast<conftype>(-1)),
      "insert into 'Config' (name,keybase,etc,version, save_time, type) values ('weekly',?,?,-5,-6,-1)");
}

TEST_F(StatementText, SelectRow) {
  EXPECT_EQ(sql::select_row("weekly", kCurrent, true),
            "select keybase, etc, type, id from 'Config' where name!='corlu-config' and name='weekly' and "
            "version=17264017408");
  EXPECT_EQ(sql::select_row("weekly", kCurrent, false),
            "select keybase, etc, type, id from 'Config' where name='weekly' and version=17264017408");
}

TEST_F(StatementText, StampLoadTime) {
  EXPECT_EQ(sql::stamp_load_time(12, 1488377100), "update 'Config' set load_time=1488377100 where id=12");
}

TEST_F(StatementText, ListRows) {
  const std::string select = "select name, version, type, save_time, load_time from 'Config'";
  EXPECT_EQ(sql::list_rows(0, "", false), select);
  EXPECT_EQ(sql::list_rows(0, "", true), select + " where name!='corlu-config'");
  EXPECT_EQ(sql::list_rows(kCurrent, "", false), select + " where version<=17264017408");
  EXPECT_EQ(sql::list_rows(kCurrent, "", true),
            select + " where name!='corlu-config' and version<=17264017408");
  EXPECT_EQ(sql::list_rows(-7, "name desc", true),
            select + " where name!='corlu-config' and version<=-7 order by name desc");
  EXPECT_EQ(sql::list_rows(0, "save_time", false), select + " order by save_time");
}

TEST_F(StatementText, FindRows) {
  const std::string select = "select id, name, type, version, save_time, load_time from 'Config' where";
  EXPECT_EQ(sql::find_rows("autosave*", 0, true),
            select + " name!='corlu-config' and name glob 'autosave*'");
  EXPECT_EQ(sql::find_rows("*", 0, false), select + " name glob '*'");
  EXPECT_EQ(sql::find_rows("w?", kCurrent, false), select + " name glob 'w?' and version=17264017408");
  EXPECT_EQ(sql::find_rows("w", -1, true),
            select + " name!='corlu-config' and name glob 'w' and version=-1");
}

using SqlErrorReport = Gateway;

TEST_F(SqlErrorReport, HasLevel2AndLeavesOutAMissingText) {
  const ClUnilogFname function{"void f(int)", "f"};
  sql::report_error(function, "no such table: x", "select 1 from x", 1);
  sql::execute(nullptr, "commit", function);
  const Function logged{"void f(int)", "f", "source/storage"};
  EXPECT_EQ(host.records,
            (LogRecords{says(logged, 2, refusal("no such table: x", "select 1 from x", 1), {4}),
                        says(logged, 2, refusal("", "commit", 21), {4})}));
}

}  // namespace
