#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "confsave/snapshots.h"
#include "snapshots/boundary.h"
#include "snapshots/member_collector.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;

std::string shown(const Error& error) {
  return std::to_string(static_cast<int>(error.code)) + " " + error.path + ": " + error.text;
}

class Reading : public Gateway {
 protected:
  void save(const std::string& name, ConfSave::conftype type = ConfSave::conf_full) {
    EXPECT_TRUE(ConfSave::save(name, type, 0, true));
  }

  Texts names(const Query& query = {}) {
    const auto found = list(query);
    if (!found) return {shown(found.error())};
    Texts result;
    for (const Snapshot& snapshot : *found) result.push_back(snapshot.config.name);
    return result;
  }

  /// Replaces an archive of the only row.
  void replace(const std::string& column, const std::string& value) {
    Database(database()).run("update Config set " + column + "=" + value);
  }
};

TEST_F(Reading, AStorageThatIsNotThereYetHasNoSnapshots) {
  EXPECT_EQ(names(), Texts());
  write_file(database(), "");
  EXPECT_EQ(names(), Texts());
  EXPECT_EQ(members({"weekly"}).error().code, Code::not_found);
}

TEST_F(Reading, WhatIsNoStorageIsReported) {
  shell("rm -r " + state_dir());
  EXPECT_EQ(list().error().code, Code::no_storage);
  EXPECT_EQ(list().error().text, "No such file or directory");
  EXPECT_EQ(list().error().path, database());
  shell("mkdir -p " + database());
  EXPECT_EQ(list().error().text, "this is not a regular file");
  shell("rmdir " + database());
  write_file(database(), std::string(5000, 'x'));
  EXPECT_EQ(list().error().code, Code::no_storage);
  EXPECT_EQ(list().error().text, "file is not a database");
}

TEST_F(Reading, AnotherKindOfObjectInTheTablesPlaceIsRefused) {
  for (const char* sql : {"create table other (x)", "create view Config as select 1 as id",
                          "create virtual table Config using fts5(name)",
                          "create view Config as with recursive n(i) as (select 1 union all select i+1 "
                          "from n) select i as id from n"}) {
    shell("rm -f " + database());
    Database(database()).run(sql);
    EXPECT_EQ(list().error().code, Code::no_storage) << sql;
    EXPECT_EQ(list().error().text, "it has no table 'Config'") << sql;
  }
}

TEST_F(Reading, RowsOfTheContractAreListedWithTimesOf64Bits) {
  put({"old", 5, 2, "5000000000", "6000000000"});
  make_configuration();
  save("weekly");
  const auto found = list();
  ASSERT_TRUE(found);
  ASSERT_EQ(found->size(), 2U);
  EXPECT_EQ(found->at(0).config.save_time, 5000000000);
  EXPECT_EQ(found->at(0).config.load_time, 6000000000);
  EXPECT_EQ(found->at(0).config.vers, 5);
  EXPECT_EQ(found->at(0).config.type, ConfSave::conf_part);
  EXPECT_EQ(found->at(0).keybase_size, 1);
  EXPECT_EQ(found->at(0).etc_size, 1);
  EXPECT_EQ(found->at(1).config.name, "weekly");
  EXPECT_EQ(found->at(1).config.load_time, 0);
  EXPECT_EQ(
      Database(database()).query("select length(keybase), length(etc) from Config where name='weekly'"),
      (Rows{{std::to_string(found->at(1).keybase_size), std::to_string(found->at(1).etc_size)}}));
}

TEST_F(Reading, AQueryChoosesAndOrders) {
  put({"b", 7, 1, "30"});
  put({"a", 9, 1, "20"});
  put({"corlu-config", 1, 3, "10"});
  EXPECT_EQ(names(), (Texts{"b", "a"}));
  Query query;
  query.order = Query::Order::name;
  EXPECT_EQ(names(query), (Texts{"a", "b"}));
  query.corlu_config = true;
  query.order = Query::Order::saved;
  EXPECT_EQ(names(query), (Texts{"corlu-config", "a", "b"}));
  query.up_to = 7;
  EXPECT_EQ(names(query), (Texts{"corlu-config", "b"}));
  query.up_to.reset();
  query.version = 9;
  EXPECT_EQ(names(query), Texts{"a"});
  query.version.reset();
  query.pattern = "[ab]";
  EXPECT_EQ(names(query), (Texts{"a", "b"}));
  query.pattern = "x' or '1'='1";
  EXPECT_EQ(names(query), Texts());
}

TEST_F(Reading, FindWantsExactlyOne) {
  put({"weekly", 1});
  put({"weekly", 2});
  Query query;
  query.pattern = "weekly";
  EXPECT_EQ(shown(find(query).error()),
            std::to_string(static_cast<int>(Code::ambiguous)) + " : 2 snapshots match 'weekly'");
  query.version = 2;
  EXPECT_EQ(find(query)->config.vers, 2);
  query.pattern = "no\nne";
  EXPECT_EQ(shown(find(query).error()),
            std::to_string(static_cast<int>(Code::not_found)) + " : there is no snapshot 'no\\x0ane'");
}

TEST_F(Reading, MembersAreTheFilesThatWereSaved) {
  make_configuration();
  save("weekly");
  const auto found = members({"weekly"});
  ASSERT_TRUE(found) << shown(found.error());
  Texts paths;
  for (const Member& member : *found) paths.push_back(member.path);
  Texts expected;
  for (const auto& [name, content] : tree(config_dir())) expected.push_back(config_dir() + name);
  for (const auto& [name, content] : tree(etc_dir())) expected.push_back(etc_dir() + name);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(paths, expected);
  Texts secrets;
  for (const Member& member : *found) {
    if (member.secret) secrets.push_back(member.path.substr(config_dir().size()));
    const std::string content = read_file(member.path);
    EXPECT_EQ(member.size, static_cast<ConfSave::int64>(content.size())) << member.path;
    EXPECT_EQ(member.kind, Kind::file) << member.path;
    struct stat status = {};
    ASSERT_EQ(stat(member.path.c_str(), &status), 0);
    EXPECT_EQ(member.mode, status.st_mode & 07777U) << member.path;
    EXPECT_EQ(member.time, status.st_mtim.tv_sec) << member.path;
  }
  EXPECT_EQ(secrets, (Texts{"hub/key", "hub/old", "hub/out", "user/gateway.key", "user/gateway.key.pub",
                            "user/key_set"}));
}

TEST_F(Reading, ADigestIsThatOfTheContent) {
  make_configuration();
  write_file(config_dir() + "user/gateway.conf", "abc");
  save("weekly");
  const auto found = members({"weekly"});
  ASSERT_TRUE(found);
  for (const Member& member : *found) {
    if (member.path != config_dir() + "user/gateway.conf") continue;
    std::string digits;
    for (const std::uint8_t byte : member.sha256) {
      char two[3];
      std::snprintf(two, sizeof two, "%02x", byte);
      digits += two;
    }
    EXPECT_EQ(digits, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    return;
  }
  FAIL() << "the member is missing";
}

TEST_F(Reading, ATableWithoutRowIdsIsListedOnly) {
  make_configuration();
  save("weekly");
  const Database storage(database());
  storage.run("alter table Config rename to was");
  storage.run(
      "create table Config (id integer primary key, name text, version integer, keybase blob, etc blob, "
      "type integer, save_time integer, load_time integer) without rowid");
  storage.run("insert into Config select * from was");
  EXPECT_EQ(list()->size(), 1U);
  const auto result = members({"weekly"});
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().code, Code::no_storage);
  EXPECT_EQ(result.error().text, "the table 'Config' is one without row ids");
}

TEST_F(Reading, VerifySaysWhatIsWrong) {
  make_configuration();
  save("weekly");
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::unproven);
  const std::string whole = Database(database()).value("select hex(etc) from Config");
  const struct {
    std::string column, value, problem;
    Verdict::State state;
  } cases[] = {
      {"etc", "null", "etc: the column holds a value of type null, not blob", Verdict::State::damaged},
      {"etc", "'text'", "etc: the column holds a value of type text, not blob", Verdict::State::damaged},
      {"etc", "x''", "etc: the archive is empty", Verdict::State::damaged},
      {"etc", "x'" + whole.substr(0, whole.size() / 4 * 2) + "'", "etc: the archive ends in the middle",
       Verdict::State::damaged},
  };
  for (const auto& c : cases) {
    replace(c.column, c.value);
    const auto verdict = verify({"weekly"});
    ASSERT_TRUE(verdict) << shown(verdict.error());
    EXPECT_EQ(verdict->problems, Texts{c.problem});
    EXPECT_EQ(verdict->state, c.state) << c.problem;
    EXPECT_EQ(members({"weekly"}).error().code, Code::damaged) << c.problem;
  }
  replace("type", "3");
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::unproven);
}

TEST_F(Reading, ANameThatGoesOnAfterANulByteIsAnotherName) {
  make_configuration();
  save("weekly");
  Database(database())
      .run(
          "insert into Config (name, version, keybase, etc, type, save_time) "
          "select name || char(0) || 'x', version, x'00', x'00', type, save_time from Config");
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::unproven);
  Database(database()).run("delete from Config where name = 'weekly'");
  EXPECT_EQ(verify({"weekly"}).error().code, Code::not_found);
  EXPECT_EQ(pin({"weekly"}, true).code, Code::not_found);
}

TEST_F(Reading, ArchivesAreThoseOfTheRowWhereTheIdIsNotItsKey) {
  make_configuration();
  save("weekly");
  for (const char* sql : {"create table foreign_rows as select * from Config", "drop table Config",
                          "alter table foreign_rows rename to Config", "update Config set id = 2",
                          "insert into Config (id, name, version, keybase, etc, type, save_time) "
                          "select 1, 'other', version, x'00', x'00', type, save_time from Config"}) {
    Database(database()).run(sql);
  }
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::unproven);
  EXPECT_EQ(verify({"other"})->state, Verdict::State::damaged);
}

TEST_F(Reading, ALockEndsTheWaitAndNotTheProgram) {
  put({"weekly", 1});
  const LockHolder holder(database(), 60000);
  Query query;
  query.wait = milliseconds(200);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(list(query).error().code, Code::busy);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, milliseconds(190));
  EXPECT_LT(waited, milliseconds(2000));
}

TEST_F(Reading, AJournalOfAKilledProcessIsRolledBack) {
  put({"weekly", 1});
  // What a process leaves that is killed after it wrote and before it committed.
  EXPECT_EQ(shell("cd " + state_dir() +
                  " && printf \"pragma cache_spill=1; pragma cache_size=1; begin; insert into "
                  "Config(name,version,keybase) "
                  "values('lost',1,randomblob(3000000));\\n.shell kill -9 \\$PPID\\n\" | sqlite3 "
                  "storage.db >/dev/null 2>&1; "
                  "test -s storage.db-journal"),
            0);
  EXPECT_EQ(names(), Texts{"weekly"});
  EXPECT_FALSE(exists(database() + "-journal"));
}

TEST(Secrets, AreWhatTheContentsSayAndAllBelow) {
  const Secrets secrets(ConfSave::Base::configuration);
  for (const char* path : {"user/gateway.key", "user/gateway.key.old", "user/gateway.key.d/x",
                           "user/key_set", "user/key_set/a/b", "hub/key"}) {
    EXPECT_TRUE(secrets.contains(path)) << path;
  }
  for (const char* path : {"user/gateway.conf", "user/key_set2", "hub", "hub/keys", "gw1"}) {
    EXPECT_FALSE(secrets.contains(path)) << path;
  }
  EXPECT_FALSE(Secrets(ConfSave::Base::failover).contains("user/key_set"));
}

struct Silent : std::exception {
  const char* what() const noexcept override { return nullptr; }
};

TEST(Boundary, OnlyTheEndOfMemoryLeavesIt) {
  const auto call = [](auto exception) { return at_boundary([&]() -> Result<int> { throw exception; }); };
  EXPECT_EQ(call(std::runtime_error("no path")).error().text, "no path");
  EXPECT_EQ(call(7).error().text, "the platform or a function of the caller threw an exception");
  EXPECT_EQ(call(7).error().code, Code::failed);
  EXPECT_EQ(call(Silent()).error().text, call(7).error().text);
  EXPECT_THROW((void)call(std::bad_alloc()), std::bad_alloc);
}

/// `for (const Snapshot& snapshot : *list())` is what people write.
TEST(ResultTest, WhatATemporaryHoldsCanBeKept) {
  const auto call = [](bool good) {
    return good ? Result<Texts>(Texts{"long enough to be on the heap"}) : Error{Code::failed, 0, "", "no"};
  };
  static_assert(!std::is_reference_v<decltype(*call(true))> &&
                !std::is_reference_v<decltype(call(false).error())>);
  Texts seen;
  for (const std::string& text : *call(true)) seen.push_back(text);
  EXPECT_EQ(seen, Texts{"long enough to be on the heap"});
  EXPECT_EQ(call(false).error().text, "no");
}

}  // namespace
