// What a comparison with the live configuration takes from the manifest of the snapshot.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "confsave/snapshots.h"
#include "snapshots/manifests.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

class CompareManifest : public Gateway {
 protected:
  CompareManifest() { make_configuration(); }

  void in_config(const std::string& command) {
    ASSERT_EQ(shell("cd " + config_dir() + " && " + command), 0) << command;
  }

  std::string config(const std::string& name) { return config_dir() + name; }

  /// Saves the present files as "weekly", with a manifest.
  void save() {
    ASSERT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
    write_manifest();
  }

  void in_notes(const std::string& sql) { test::Database(state_dir() + "/notes.db").run(sql); }

  static ino_t inode_of(const std::string& file) {
    struct stat status = {};
    EXPECT_EQ(stat(file.c_str(), &status), 0);
    return status.st_ino;
  }

  /// Gives the files of the manifest digests that no file has, so that every file that is read differs.
  void falsify_digests() { in_notes("update member set sha256 = zeroblob(32) where size > 0"); }

  void falsify_archives() {
    test::Database(database())
        .run("update Config set keybase = zeroblob(length(keybase)), etc = zeroblob(length(etc))");
  }

  /// The paths whose content differs.
  Texts changed() {
    const auto differences = compare({"weekly"}, Live());
    if (!differences) return {differences.error().path + ": " + differences.error().text};
    Texts result;
    for (const Difference& difference : *differences) {
      const bool is_below = difference.path.compare(0, config_dir().size(), config_dir()) == 0;
      if (difference.content) result.push_back(difference.path.substr(is_below ? config_dir().size() : 0));
    }
    return result;
  }
};

TEST_F(CompareManifest, NeitherOldFilesNorArchivesAreRead) {
  in_config("ln gw1.conf gw7");
  let_the_files_grow_old();
  save();
  falsify_archives();
  EXPECT_EQ(changed(), Texts());
  falsify_digests();
  EXPECT_EQ(changed(), Texts());
  write_file(config("gw2.conf"), "another content");
  EXPECT_EQ(changed(), Texts{"gw2.conf"});
}

TEST_F(CompareManifest, EveryWayToChangeAFileIsSeen) {
  for (const char* name : {"in-place", "renamed", "reused", "same", "future"}) {
    write_file(config("gw-" + std::string(name)), "0123456789");
  }
  in_config("touch -d '+1 hour' gw-future");
  let_the_files_grow_old();
  save();
  // With the old size and time of modification again.
  in_config("cp -p gw-in-place keep && printf 9876543210 > gw-in-place && touch -r keep gw-in-place");
  in_config("printf 9876543210 > new && touch -r gw-renamed new && mv new gw-renamed");
  in_config(
      "cp -p gw-reused keep && rm gw-reused && printf 9876543210 > gw-reused && "
      "touch -r keep gw-reused && rm keep");
  in_notes("update member set inode = " + std::to_string(inode_of(config("gw-reused"))) +
           " where path like '%gw-reused'");
  EXPECT_EQ(changed(), (Texts{"gw-in-place", "gw-renamed", "gw-reused"}));
  falsify_digests();
  EXPECT_EQ(changed(), (Texts{"gw-future", "gw-in-place", "gw-renamed", "gw-reused"}));
}

TEST_F(CompareManifest, EachPartOfAStampCounts) {
  let_the_files_grow_old();
  save();
  for (const char* part : {"device", "inode", "size", "modified", "changed"}) {
    falsify_digests();
    const std::string which = " where path like '%gw1.conf'";
    in_notes("update member set " + std::string(part) + " = " + part + " - 1" + which);
    EXPECT_EQ(changed(), Texts{"gw1.conf"}) << part;
    in_notes("update member set " + std::string(part) + " = " + part + " + 1" + which);
    EXPECT_EQ(changed(), Texts()) << part;
  }
}

TEST_F(CompareManifest, AFileThatIsAsYoungAsTheSaveIsRead) {
  let_the_files_grow_old();
  in_config("chmod 640 gw1.conf");
  save();
  EXPECT_EQ(changed(), Texts());
  falsify_digests();
  EXPECT_EQ(changed(), Texts{"gw1.conf"});
}

TEST_F(CompareManifest, AClockThatWentBackProvesNothing) {
  let_the_files_grow_old();
  save();
  falsify_digests();
  EXPECT_EQ(changed(), Texts());
  in_notes("update manifest set moment = moment + 3600000000000");
  EXPECT_NE(changed(), Texts());
}

TEST_F(CompareManifest, WithoutAWholeManifestTheArchivesAreRead) {
  for (const char* sql :
       {"delete from member where path like '%gw1.conf'", "update manifest set etc = 1",
        "update manifest set members = -1", "drop table member", "pragma user_version = 3"}) {
    shell("rm -f " + state_dir() + "/notes.db");
    save();
    write_file(config("gw1.conf"), sql);
    in_notes(sql);
    EXPECT_EQ(changed(), Texts{"gw1.conf"}) << sql;
    falsify_archives();
    EXPECT_EQ(compare({"weekly"}, Live()).error().code, Code::damaged) << sql;
  }
}

}  // namespace
