// What verify() says about a snapshot that has a manifest.

#include <gtest/gtest.h>

#include "confsave/snapshots.h"
#include "snapshots/manifests.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;

class Verify : public Gateway {
 protected:
  Verify() {
    make_configuration();
    EXPECT_EQ(shell("cd " + config_dir() + " && mkdir gwd && ln -s target gwd/link && ln gw1.conf gw7"), 0);
    EXPECT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
    write_manifest();
  }

  std::string notes_file() const { return state_dir() + "/notes.db"; }
  void in_notes(const std::string& sql) { test::Database(notes_file()).run(sql); }
  std::string config(const std::string& name) { return config_dir() + name; }

  /// Puts other archives into the row, and lets the manifest belong to them.
  void replace_archive(const Bytes& archive) {
    test::Database(database()).run("update Config set keybase = " + hex(archive));
    in_notes("update manifest set keybase = " + std::to_string(archive.size()));
  }

  /// The state as a number, then the problems.
  Texts verdict() {
    const auto found = verify({"weekly"});
    if (!found) return {found.error().text};
    Texts result{std::to_string(static_cast<int>(found->state))};
    result.insert(result.end(), found->problems.begin(), found->problems.end());
    return result;
  }

  static std::string number(Verdict::State state) { return std::to_string(static_cast<int>(state)); }
  const std::string intact = number(Verdict::State::intact);
  const std::string unproven = number(Verdict::State::unproven);
  const std::string damaged = number(Verdict::State::damaged);
};

TEST_F(Verify, OnlyAManifestProvesASnapshot) {
  EXPECT_EQ(verdict(), Texts{intact});
  in_notes("update manifest set saved = 1");
  EXPECT_EQ(verdict(), Texts{unproven});
  shell("rm " + notes_file());
  EXPECT_EQ(verdict(), Texts{unproven});
}

TEST_F(Verify, AManifestOfAnotherDirectoryIsNotUsed) {
  const std::string moved = root() + "/moved/here/";
  shell("mkdir " + root() + "/moved && cp -a " + config_dir() + " " + moved);
  setenv("KELMOR_CONFIG_PATH", moved.c_str(), 1);
  write_manifest();
  // Its parent, another directory, and another spelling.
  shell("cp -a " + moved + ". " + root() + "/moved");
  for (const std::string& other : {root() + "/moved/", config_dir(), root() + "/moved//here/"}) {
    setenv("KELMOR_CONFIG_PATH", other.c_str(), 1);
    EXPECT_EQ(verdict(), Texts{unproven}) << other;
    const auto same = compare({"weekly"}, Live{});
    ASSERT_TRUE(same) << same.error().text;
    EXPECT_TRUE(same->empty()) << other;
    const std::string file = root() + "/exported";
    ASSERT_TRUE(export_to({{"weekly"}}, file));
    ImportOptions options;
    options.name = "imported";
    options.overwrite = true;
    const auto imported = import_from(file, options);
    EXPECT_TRUE(imported) << (imported ? "" : imported.error().text);
    shell("rm " + file);
  }
  // Of a configuration without files only what is missing says it.
  setenv("KELMOR_CONFIG_PATH", moved.c_str(), 1);
  write_manifest({moved + "gw1.conf"});
  in_notes("delete from member where path not like '/mnt/%'");
  in_notes("update manifest set members = (select count(*) from member)");
  EXPECT_EQ(verify({"weekly"})->missing, Texts{moved + "gw1.conf"});
  setenv("KELMOR_CONFIG_PATH", config_dir().c_str(), 1);
  EXPECT_EQ(verify({"weekly"})->missing, Texts());
}

TEST_F(Verify, SaysWhatTheSaveDidNotFind) {
  write_manifest({"/mnt/main/etc/b", "/mnt/main/etc/a"});
  EXPECT_EQ(verify({"weekly"})->missing, (Texts{"/mnt/main/etc/a", "/mnt/main/etc/b"}));
  EXPECT_EQ(verdict(), Texts{intact});
}

TEST_F(Verify, EachMemberIsComparedWithTheManifest) {
  const std::string differs = ": the archive differs from what was saved: ";
  const struct {
    std::string sql, path, problem;
  } cases[] = {
      {"mode = mode + 1", config("gw2.conf"), differs + "mode"},
      {"uid = uid + 1", config("gw2.conf"), differs + "owner"},
      {"gid = gid + 1", etc_dir() + "failover.ini", differs + "group"},
      {"size = size + 1", config("gw2.conf"), differs + "content"},
      {"time = time + 1", config("gw2.conf"), differs + "time"},
      {"sha256 = zeroblob(32)", config("gwd/link"), differs + "content"},
      {"sha256 = zeroblob(32), time = 1", config("gw2.conf"), differs + "content, time"},
      {"kind = 1", config("gw2.conf"), differs + "content"},
      {"path = path || '/x'", config("gw2.conf"), ""},
  };
  for (const auto& c : cases) {
    write_manifest();
    in_notes("update member set " + c.sql + " where path = '" + c.path + "'");
    Texts expected{damaged, c.path + c.problem};
    if (c.problem.empty()) {
      expected = {damaged, c.path + ": the archive has it, and it was not saved",
                  c.path + "/x: it was saved, and the archives do not have it"};
    }
    EXPECT_EQ(verdict(), expected) << c.sql;
  }
}

TEST_F(Verify, ASoundArchiveOfOtherFilesIsDamaged) {
  write_file(config("gw1.conf"), "another content");
  ASSERT_EQ(shell("touch -d @1488377100 " + config("gw1.conf")), 0);
  replace_archive(make_archive(config_dir(), "."));
  const Texts found = verdict();
  ASSERT_FALSE(found.empty());
  EXPECT_EQ(found.front(), damaged);
  const std::string differs = ": the archive differs from what was saved: content";
  // One of them is a hard link in the archive, and has the content of the other.
  for (const char* name : {"gw1.conf", "gw7"}) {
    EXPECT_EQ(
        std::count_if(found.begin(), found.end(),
                      [&](const std::string& line) { return line.find(config(name) + differs) == 0; }),
        1)
        << name;
  }
}

TEST_F(Verify, OfAPathThatAnArchiveHasTwiceTheLastMemberCounts) {
  const std::string again = " && gzip -c twice.tar > twice.tgz";
  const std::string other = root() + "/other";
  ASSERT_EQ(
      shell("mkdir " + other + " && echo other > " + other + "/gw2.conf && cd " + root() +
            " && tar cf twice.tar -C other gw2.conf && tar rf twice.tar -C " + config_dir() + " ." + again),
      0);
  const std::string packed = read_file(root() + "/twice.tgz");
  in_notes("delete from member where path like '" + config_dir() + "user/%-journal'");
  replace_archive({packed.begin(), packed.end()});
  for (const std::string& line : verdict()) {
    EXPECT_EQ(line.find(config("gw2.conf")), std::string::npos) << line;
  }
  ASSERT_EQ(shell("cd " + root() + " && tar rf twice.tar -C other gw2.conf" + again), 0);
  const std::string worse = read_file(root() + "/twice.tgz");
  replace_archive({worse.begin(), worse.end()});
  bool is_named = false;
  for (const std::string& line : verdict()) is_named |= line.find(config("gw2.conf")) == 0;
  EXPECT_TRUE(is_named);
}

TEST_F(Verify, OfVeryManyDifferencesTheFirstAreNamed) {
  for (int i = 0; i < 150; ++i) write_file(config("gw-" + std::to_string(i)), "x");
  EXPECT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  write_manifest();
  EXPECT_EQ(verdict(), Texts{intact});
  in_notes("update member set mode = mode + 1 where path like '%/gw-%'");
  const Texts found = verdict();
  EXPECT_EQ(found.size(), 102U);
  EXPECT_EQ(found.front(), damaged);
  EXPECT_EQ(found.back(), "50 more members differ from what was saved");
}

TEST_F(Verify, NotesThatCannotBeReadProveNothingAndDamageNothing) {
  const std::string good = read_file(notes_file());
  const struct {
    std::string sql, problem;
  } cases[] = {
      {"update member set sha256 = 'x' where path like '%gw1.conf'",
       notes_file() + ": a row of a manifest has values that nobody wrote"},
      {"drop table missing", notes_file() + ": no such table: missing"},
      {"pragma user_version = 3", notes_file() + ": a newer version of ConfSave wrote this file"},
  };
  for (const auto& c : cases) {
    in_notes(c.sql);
    EXPECT_EQ(verdict(), (Texts{unproven, c.problem}));
    write_file(notes_file(), good);
  }
  EXPECT_EQ(verdict(), Texts{intact});
  const LockHolder holder(notes_file(), 60000);
  ReadOptions options;
  options.wait = milliseconds(100);
  EXPECT_EQ(verify({"weekly"}, options)->state, Verdict::State::unproven);
}

TEST_F(Verify, RowsWithValuesOfAnyTypeAreListedAndJudged) {
  const struct {
    const char *column, *type;
  } columns[] = {{"name", "text"},  {"version", "integer"}, {"type", "integer"}, {"save_time", ""},
                 {"load_time", ""}, {"keybase", "blob"},    {"etc", "blob"}};
  const test::Database storage(database());
  for (const auto& c : columns) {
    for (const char* value : {"null", "'text'", "x'00ff'", "1.5", "-9223372036854775808"}) {
      const std::string what = std::string(c.column) + " = " + value;
      storage.run("delete from Config where name is not 'weekly'");
      storage.run(
          "insert into Config (name, version, keybase, etc, type, save_time) "
          "select 'odd', version, keybase, etc, type, save_time from Config");
      try {
        storage.run("update Config set " + what + " where name = 'odd'");
      } catch (const std::runtime_error&) {
        continue;  // The column does not take it.
      }
      const auto all = list();
      ASSERT_TRUE(all) << what;
      for (const Snapshot& snapshot : *all) {
        const auto judged = verify({snapshot.config.name, snapshot.config.vers});
        ASSERT_TRUE(judged) << what << ": " << judged.error().text;
        if (snapshot.config.name == "weekly") continue;
        const std::string type = storage.value("select typeof(" + std::string(c.column) +
                                               ") from Config where name <> 'weekly'");
        if (*c.type != '\0' && type != c.type) {
          EXPECT_EQ(judged->state, Verdict::State::damaged) << what;
          EXPECT_NE(judged->problems.at(0).find(type + ", not " + c.type), std::string::npos) << what;
        }
        if (*c.type != '\0') continue;
        write_file(config("gw1.conf"), "changed");
        RestoreOptions without_keeping;
        without_keeping.keep = false;
        const auto done = restore({"odd"}, without_keeping);
        EXPECT_TRUE(done && done->warnings.empty()) << what << (done ? "" : done.error().text);
        EXPECT_TRUE(export_to({{"odd"}}, root() + "/odd", {true})) << what;
      }
    }
  }
}

}  // namespace
