#include "snapshots/manifest.h"

#include <gtest/gtest.h>

#include <functional>

#include "snapshots/notes.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;

/// Everything about a member on one line.
std::string shown(const LiveMember& live) {
  const Member& member = live.member;
  std::string text = member.path;
  for (const std::uint8_t byte : member.sha256) text += ' ' + std::to_string(byte);
  text += " " + member.target;
  for (const ConfSave::int64 number :
       {ConfSave::int64{member.mode}, ConfSave::int64{member.uid}, ConfSave::int64{member.gid}, member.size,
        member.time, ConfSave::int64{member.secret ? 1 : 0}, static_cast<ConfSave::int64>(member.kind),
        static_cast<ConfSave::int64>(live.stamp.device), static_cast<ConfSave::int64>(live.stamp.inode),
        live.stamp.size, live.stamp.modified, live.stamp.changed}) {
    text += " " + std::to_string(number);
  }
  return text;
}

Texts shown(const Manifest& manifest) {
  Texts result{std::to_string(manifest.tree.moment)};
  for (const auto& [path, live] : manifest.tree.members) result.push_back(path + ": " + shown(live));
  for (const std::string& path : manifest.missing) result.push_back("missing " + path);
  for (const auto& [path, parent] : manifest.parents) {
    result.push_back("parent " + path + " " + std::to_string(parent.mode) + " " +
                     std::to_string(parent.uid) + ":" + std::to_string(parent.gid));
  }
  return result;
}

class ManifestTest : public Gateway {
 protected:
  ManifestTest() {
    make_configuration();
    EXPECT_EQ(shell("cd " + config_dir() + " && mkdir hub/d && ln -s target hub/d/link && ln gw1.conf gw7"),
              0);
    EXPECT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
    EXPECT_TRUE(ConfSave::save("daily", ConfSave::conf_full, 0, true));
  }

  std::string config(const std::string& name) const { return config_dir() + name; }
  std::string notes_file() const { return state_dir() + "/notes.db"; }

  static Snapshot row(const std::string& name = "weekly") {
    Query query;
    query.pattern = name;
    return *find(query);
  }

  static Manifest present() {
    Tree tree = *read_tree(ConfSave::conf_full);
    Parents parents = parents_of(tree);
    return {std::move(tree), {"/mnt/main/etc/b", "/mnt/main/etc/a"}, std::move(parents)};
  }

  void in_notes(const std::string& sql) const { test::Database(notes_file()).run(sql); }

  /// What an older version wrote.
  void go_back_to_the_first_layout() const {
    in_notes("drop table parent");
    in_notes("pragma user_version = 1");
  }

  std::string layout() const { return test::Database(notes_file()).value("pragma user_version"); }

  static Notes writable() { return *Notes::open_to_write(milliseconds(1000)); }

  static std::optional<Manifest> stored(const std::string& name = "weekly") {
    auto notes = Notes::open(milliseconds(1000));
    auto manifest = (*notes)->manifest(row(name));
    return manifest ? std::move(*manifest) : std::nullopt;
  }
};

TEST_F(ManifestTest, IsReadAsItWasWritten) {
  Manifest manifest = present();
  EXPECT_EQ(writable().replace_manifest(row(), {"before the change", "admin", true}, manifest).code,
            Code::ok);
  EXPECT_EQ(row().comment, "before the change");
  EXPECT_EQ(row().author, "admin");
  EXPECT_TRUE(row().pinned);
  std::sort(manifest.missing.begin(), manifest.missing.end());
  EXPECT_EQ(shown(*stored()), shown(manifest));
  EXPECT_FALSE(stored("daily"));
}

TEST_F(ManifestTest, OutlastsAChangeOfTheCommentAndIsReplacedWhole) {
  EXPECT_EQ(writable().replace_manifest(row(), {}, present()).code, Code::ok);
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  EXPECT_TRUE(stored());
  Manifest next;
  next.missing = {"/mnt/main/etc/c"};
  EXPECT_EQ(writable().replace_manifest(row(), {}, next).code, Code::ok);
  EXPECT_EQ(shown(*stored()), (Texts{"0", "missing /mnt/main/etc/c"}));
}

TEST_F(ManifestTest, BelongsToTheRowThatItWasWrittenFor) {
  for (const char* change : {"save_time = 1001", "keybase = x'0000'", "etc = x'0000'"}) {
    EXPECT_EQ(writable().replace_manifest(row(), {}, present()).code, Code::ok);
    test::Database(database()).run("update Config set " + std::string(change) + " where name = 'weekly'");
    EXPECT_FALSE(stored()) << change;
    EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
    EXPECT_FALSE(stored()) << change;
  }
}

TEST_F(ManifestTest, CountsOnlyIfItIsWhole) {
  for (const char* change :
       {"delete from member where path like '%gw1.conf'",
        "delete from missing where path = '/mnt/main/etc/a'", "update member set sha256 = x'00'",
        "update member set sha256 = 'text'", "update member set kind = 4", "update member set kind = -1"}) {
    EXPECT_EQ(writable().replace_manifest(row(), {}, present()).code, Code::ok);
    EXPECT_TRUE(stored());
    test::Database(notes_file()).run(change);
    EXPECT_FALSE(stored()) << change;
  }
}

TEST_F(ManifestTest, IsForgottenWithItsNote) {
  EXPECT_EQ(writable().replace_manifest(row(), {"x", "", false}, present()).code, Code::ok);
  EXPECT_EQ(writable().replace_manifest(row("daily"), {"y", "", false}, present()).code, Code::ok);
  EXPECT_EQ(writable().forget(row().id).code, Code::ok);
  EXPECT_EQ(row().comment, "");
  EXPECT_FALSE(stored());
  EXPECT_EQ(row("daily").comment, "y");
  EXPECT_TRUE(stored("daily"));
  for (const char* table : {"note", "manifest"}) {
    EXPECT_EQ(test::Database(notes_file()).value("select count(*) from " + std::string(table)), "1")
        << table;
  }
  EXPECT_EQ(test::Database(notes_file()).value("select count(distinct manifest) from member"), "1");
  EXPECT_EQ(test::Database(notes_file()).value("select count(distinct manifest) from missing"), "1");
  EXPECT_EQ(test::Database(notes_file()).value("select count(distinct manifest) from parent"), "1");
}

TEST_F(ManifestTest, HasTheDirectoriesThatAreNoMembers) {
  ASSERT_EQ(shell("cd " + config_dir() + " && chmod 3751 user && chown 7:8 user && chmod 700 hub/d"), 0);
  EXPECT_TRUE(save({"typed"}));
  const Parents parents = stored("typed")->parents;
  Texts paths;
  for (const auto& [path, parent] : parents) {
    EXPECT_EQ(stored("typed")->tree.members.count(path), 0U) << path;
    paths.push_back(path.substr(config_dir().size()));
  }
  EXPECT_EQ(paths, (Texts{"hub", "user"}));
  const Parent& user = parents.at(config("user"));
  EXPECT_EQ(user.mode, 03751U);
  EXPECT_EQ(user.uid, 7U);
  EXPECT_EQ(user.gid, 8U);
}

TEST_F(ManifestTest, NotesOfTheFirstLayoutAreReadAsTheyAre) {
  EXPECT_EQ(writable().replace_manifest(row(), {"x", "", true}, present()).code, Code::ok);
  Manifest expected = *stored();
  expected.parents.clear();
  go_back_to_the_first_layout();
  const std::string before = read_file(notes_file());
  EXPECT_EQ(shown(*stored()), shown(expected));
  EXPECT_EQ(row().comment, "x");
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::intact);
  EXPECT_TRUE(compare({"weekly"}, Live()));
  EXPECT_TRUE(read_file(notes_file()) == before);
}

TEST_F(ManifestTest, WhoWritesBringsTheFirstLayoutUpToDate) {
  const struct {
    const char* what;
    std::function<Error()> change;
  } cases[] = {
      {"note", [] { return note({"weekly"}, "x"); }},
      {"remove", [] { return ConfSave::snapshots::remove({"daily"}); }},
      {"save",
       [] {
         const auto saved = save({"typed"});
         return saved && saved->warnings.empty() ? Error{} : Error{Code::failed, 0, "", ""};
       }},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(writable().replace_manifest(row(), {"x", "", false}, present()).code, Code::ok);
    Manifest expected = *stored();
    expected.parents.clear();
    go_back_to_the_first_layout();
    EXPECT_EQ(c.change().code, Code::ok) << c.what;
    EXPECT_EQ(layout(), "2") << c.what;
    EXPECT_EQ(shown(*stored()), shown(expected)) << c.what;
    EXPECT_EQ(writable().replace_manifest(row(), {"x", "", false}, present()).code, Code::ok);
    EXPECT_FALSE(stored()->parents.empty()) << c.what;
  }
}

TEST_F(ManifestTest, AnUpdateThatFailsChangesNothing) {
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  go_back_to_the_first_layout();
  in_notes("create table parent (path)");
  EXPECT_NE(note({"weekly"}, "y").code, Code::ok);
  EXPECT_EQ(layout(), "1");
  EXPECT_EQ(row().comment, "x");
}

TEST_F(ManifestTest, ASaveSweepsThoseOfRowsThatAreGone) {
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(save({"typed-" + std::to_string(i)}));
  EXPECT_EQ(note({"typed-0"}, "stays").code, Code::ok);
  const test::Database storage(database());
  storage.run("create table was as select * from Config");
  storage.run("delete from Config where name like 'typed-%' and name <> 'typed-5'");
  storage.run("update Config set save_time = save_time - 1 where name = 'typed-5'");
  const test::Database notes(notes_file());
  for (const char* left : {"3", "2"}) {
    EXPECT_TRUE(save({"next-" + std::string(left)}));
    EXPECT_EQ(notes.value("select count(*) from manifest"), left);
  }
  for (const char* table : {"member", "parent"}) {
    EXPECT_EQ(notes.value("select count(distinct manifest) from " + std::string(table)), "2") << table;
  }
  EXPECT_TRUE(stored("next-3"));
  EXPECT_TRUE(stored("next-2"));
  // The storage may have been another one for a while.
  storage.run("insert into Config select * from was where name = 'typed-0'");
  EXPECT_EQ(row("typed-0").comment, "stays");
}

TEST_F(ManifestTest, NoteAndManifestAreWrittenTogetherOrNotAtAll) {
  EXPECT_EQ(writable().replace_manifest(row(), {"old", "", false}, present()).code, Code::ok);
  Manifest twice = present();
  twice.missing = {"/mnt/a", "/mnt/a"};
  EXPECT_NE(writable().replace_manifest(row(), {"new", "", false}, twice).code, Code::ok);
  EXPECT_EQ(row().comment, "old");
  EXPECT_EQ(stored()->missing, (Texts{"/mnt/main/etc/a", "/mnt/main/etc/b"}));
}

}  // namespace
