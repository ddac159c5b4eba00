#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "snapshots/restoring.h"

namespace {

using namespace test;
using cs::Code;

class PlanTest : public Restoring {
 protected:
  /// Runs `change` in the configuration directory.
  Texts planned_after(const std::string& change, const cs::RestoreOptions& options = {}) const {
    EXPECT_EQ(shell("cd " + config_dir() + " && " + change), 0);
    return planned(options);
  }

  Texts extra() const {
    Texts result;
    const auto plan = cs::plan({"weekly"});
    if (!plan) return {shown(plan.error())};
    for (const std::string& path : plan->extra) result.push_back(without_root(path));
    return result;
  }

  cs::Code code(const cs::RestoreOptions& options = {}) const {
    const auto plan = cs::plan({"weekly"}, options);
    return plan ? Code::ok : plan.error().code;
  }
};

TEST_F(PlanTest, FilesOfTwoFileSystemsMayHaveTheSameNumber) {
  struct stat other = {};
  ASSERT_EQ(stat((etc_dir() + "failover.ini").c_str(), &other), 0);
  ASSERT_EQ(shell("mount -t tmpfs tmpfs " + config_dir()), 0);
  struct stat status = {};
  for (int attempt = 0; attempt < 1000000 && status.st_ino != other.st_ino; ++attempt) {
    unlink(config("gw9.conf").c_str());
    write_file(config("gw9.conf"), "content\n");
    ASSERT_EQ(stat(config("gw9.conf").c_str(), &status), 0);
  }
  EXPECT_EQ(status.st_ino, other.st_ino);
  saved("weekly", overwrite());
  EXPECT_EQ(planned(), Texts());
  EXPECT_EQ(shell("umount " + config_dir()), 0);
}

TEST_F(PlanTest, SaysWhatDiffersInFiveColumns) {
  EXPECT_EQ(planned(), Texts());
  const struct {
    const char* change;
    const char* line;
  } cases[] = {
      {"rm gw1.conf", "+.... <config>/gw1.conf"},
      {"echo longer than before > remote.txt && touch -d @1488377121 remote.txt",
       "c.... <config>/remote.txt"},
      {"touch -d @1 gw2.conf", "....t <config>/gw2.conf"},
      {"chmod 4755 linkmap.dat", ".p... <config>/linkmap.dat"},
      {"chown 7:0 quelvian.re", "..u.. <config>/quelvian.re"},
      {"chown 0:7 station", "...g. <config>/station"},
      {"rm corluadr.lst && ln -s x corluadr.lst && touch -h -d @1488377123 corluadr.lst",
       "cp... <config>/corluadr.lst"},
  };
  Texts expected;
  for (const auto& entry : cases) {
    ASSERT_EQ(shell("cd " + config_dir() + " && " + entry.change), 0);
    expected.emplace_back(entry.line);
  }
  const auto path_of = [](const std::string& line) { return line.substr(6); };
  std::sort(expected.begin(), expected.end(),
            [&](const std::string& a, const std::string& b) { return path_of(a) < path_of(b); });
  EXPECT_EQ(planned(), expected);
  restored();
  EXPECT_EQ(everything(), saved_);
}

TEST_F(PlanTest, FilesThatTheSnapshotDoesNotHaveStayAndAreNamed) {
  const std::string add =
      "touch gw9.conf unrelated && mkdir -p peers/a/b && touch peers/a/b/c && mkdir gw8";
  EXPECT_EQ(planned_after(add), Texts());
  EXPECT_EQ(extra(), (Texts{"<config>/gw8", "<config>/gw9.conf", "<config>/peers/a/b/c"}));
  EXPECT_EQ(planned(exactly()),
            (Texts{"-.... <config>/gw8", "-.... <config>/gw9.conf", "-.... <config>/peers",
                   "-.... <config>/peers/a", "-.... <config>/peers/a/b", "-.... <config>/peers/a/b/c"}));
  restored(exactly());
  EXPECT_TRUE(exists(config("unrelated")));
  shell("rm " + config("unrelated"));
  EXPECT_EQ(everything(), saved_);
}

TEST_F(PlanTest, NoFileOfTheDatabaseStaysThatTheSnapshotDoesNotHave) {
  shell("rm " + config("user/config.idx"));
  saved("incomplete");
  shell("touch " + config("user/config.idx") + " " + config("user/config.db-journal"));
  const auto plan = cs::plan({"incomplete"});
  ASSERT_TRUE(plan) << shown(plan.error());
  Texts removed = lines(*plan);
  EXPECT_EQ(removed, (Texts{"-.... <config>/user/config.db", "-.... <config>/user/config.db-journal",
                            "-.... <config>/user/config.idx"}));
  ASSERT_TRUE(cs::restore({"incomplete"}, without_keeping()));
  EXPECT_FALSE(exists(config("user/config.db")));
  // The database's own journal is in no archive.
  restored();
}

TEST_F(PlanTest, TheFileOfThePacketFilterIsNeitherRestoredNorRemoved) {
  shell("rm " + config("station") + " && mkdir " + config("station") + " && echo old > " +
        config("station/corlu.serv"));
  saved("with");
  shell("echo new > " + config("station/corlu.serv"));
  auto options = without_keeping();
  options.exact = true;
  ASSERT_TRUE(cs::restore({"with"}, options));
  EXPECT_EQ(read_file(config("station/corlu.serv")), "new\n");
}

TEST_F(PlanTest, ADirectoryWithTheFileOfThePacketFilterIsNotReplaced) {
  shell("cd " + config_dir() + " && rm station && mkdir station && echo rules > station/corlu.serv");
  const auto before = everything(true);
  const auto error = refused(without_keeping());
  EXPECT_EQ(error.code, Code::unsafe);
  EXPECT_EQ(without_root(error.path), "<config>/station/corlu.serv");
  EXPECT_EQ(everything(true), before);
}

TEST_F(PlanTest, TopLevelNamesWithADotInFrontAreNotRestored) {
  shell("cd " + config_dir() +
        " && echo old > .hidden && echo old > gw8 && mkdir .dir hub/.dir && touch .dir/x" + " hub/.dir/x");
  RowSpec row{"dots", kCurrent};
  row.keybase = hex(make_archive(config_dir(), ".hidden .dir hub/.dir gw8"));
  row.etc = hex(make_archive(etc_dir(), "failover.ini"));
  put(row);
  shell("cd " + config_dir() + " && rm -r .hidden .dir hub/.dir gw8");
  auto options = without_keeping();
  const auto result = cs::restore({"dots"}, options);
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(lines(result->plan),
            (Texts{"+.... <config>/gw8", "+.... <config>/hub/.dir", "+.... <config>/hub/.dir/x",
                   "-.... <config>/user/config.db", "-.... <config>/user/config.idx"}));
}

TEST_F(PlanTest, AMissingDirectoryIsMadeAsItWas) {
  shell("chmod 2750 " + config("hub") + " && chown 7:8 " + config("hub"));
  saved("weekly", overwrite());
  saved_ = everything();
  EXPECT_EQ(planned_after("rm -r hub"), (Texts{"+.... <config>/hub", "+.... <config>/hub/key",
                                               "+.... <config>/hub/old", "+.... <config>/hub/out"}));
  restored();
  EXPECT_EQ(everything(), saved_);
}

TEST_F(PlanTest, ADirectoryMayBeOlderThanTheEpoch) {
  shell("cd " + config_dir() + " && rm station && mkdir station && touch -d '1965-01-02 UTC' station");
  saved("weekly", overwrite());
  shell("rm -r " + config("station"));
  restored();
  struct stat status = {};
  ASSERT_EQ(stat(config("station").c_str(), &status), 0);
  EXPECT_EQ(status.st_mtim.tv_sec, -157680000);
}

TEST_F(PlanTest, TheTargetMayHaveTheNameOfAFileThatIsKept) {
  auto options = exactly();
  options.keep = false;
  options.target = root() + "/corlu.serv/target/";
  std::filesystem::create_directories(options.target);
  write_file(options.target + "gw77.conf", "extra");
  write_file(options.target + "corlu.serv", "kept");
  const auto result = cs::restore({"weekly"}, options);
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_FALSE(exists(options.target + "gw77.conf"));
  EXPECT_EQ(read_file(options.target + "corlu.serv"), "kept");
}

TEST_F(PlanTest, WithoutAManifestAMissingDirectoryIsForItsOwnerOnly) {
  shell("rm -r " + config("hub") + " " + notes_file());
  restored();
  struct stat status = {};
  ASSERT_EQ(stat(config("hub").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | S_IRWXU));
}

TEST_F(PlanTest, NotesThatCannotBeReadAreNamedIfTheyMatter) {
  shell("chmod 2750 " + config("hub"));
  saved("weekly", overwrite());
  shell("rm -r " + config("hub"));
  auto options = without_keeping();
  {
    const LockHolder holder(notes_file(), 60000);
    options.wait = std::chrono::milliseconds(50);
    EXPECT_EQ(refused(options).code, Code::busy);
    EXPECT_FALSE(exists(config("hub")));
    std::filesystem::create_directory(config("hub"));
    EXPECT_EQ(code(options), Code::ok);
    std::filesystem::remove(config("hub"));
  }
  write_file(notes_file(), std::string(5000, 'x'));
  const auto result = cs::restore({"weekly"}, options);
  ASSERT_TRUE(result) << shown(result.error());
  ASSERT_EQ(result->warnings.size(), 1U);
  EXPECT_EQ(result->warnings[0].find("missing directories are for their owner only: " + notes_file()), 0U)
      << result->warnings[0];
  EXPECT_EQ(std::filesystem::status(config("hub")).permissions(), std::filesystem::perms::owner_all);
}

TEST_F(PlanTest, ALinkInADirectorysPlaceIsNotFollowed) {
  shell("cd " + config_dir() + " && mv user ../elsewhere && ln -s ../elsewhere user");
  const auto error = refused();
  EXPECT_EQ(error.code, Code::unsafe);
  EXPECT_EQ(without_root(error.path), "<config>/user");
  EXPECT_EQ(error.aftermath, cs::Aftermath::untouched);
}

TEST_F(PlanTest, ATargetReceivesBothArchives) {
  cs::RestoreOptions options;
  options.target = root() + "/target";
  EXPECT_EQ(code(options), Code::failed);
  std::filesystem::create_directories(options.target + "/user");
  write_file(options.target + "/user/config.db-journal", "old");
  write_file(options.target + "/gw9.conf", "old");
  const auto before = everything(true);
  const auto result = cs::restore({"weekly"}, options);
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(result->plan.extra, Texts{options.target + "/gw9.conf"});
  EXPECT_EQ(result->kept, "");
  EXPECT_FALSE(exists(options.target + "/user/config.db-journal"));
  EXPECT_EQ(read_file(options.target + "/failover.ini"), read_file(etc_dir() + "failover.ini"));
  EXPECT_EQ(read_file(options.target + "/hub/out"), read_file(config("hub/out")));
  EXPECT_EQ(everything(true), before);
  EXPECT_EQ(query("select load_time from Config")[0][0], "NULL");
}

TEST_F(PlanTest, TwoArchivesThatDisagreeAreRefused) {
  const std::string other = root() + "/other/";
  std::filesystem::create_directories(other + "gw8");
  write_file(other + "gw8/inside", "below");
  write_file(config("gw8"), "a file");
  RowSpec row{"disagreeing", kCurrent};
  cs::RestoreOptions options;
  options.target = root() + "/target/";
  std::filesystem::create_directories(options.target);
  const std::pair<Bytes, Bytes> archives[] = {
      {make_archive(config_dir(), "gw8"), make_archive(other, "gw8")},
      {make_archive(other, "gw8/inside"), make_archive(config_dir(), "gw8")}};
  for (const auto& [keybase, etc] : archives) {
    row.keybase = hex(keybase);
    row.etc = hex(etc);
    put(row);
    const auto result = cs::restore({"disagreeing"}, options);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, Code::unsafe) << shown(result.error());
    EXPECT_EQ(result.error().path, options.target + "gw8");
    EXPECT_EQ(result.error().aftermath, cs::Aftermath::untouched);
    EXPECT_EQ(names_in(options.target), Texts());
    Database(database()).run("delete from Config where name = 'disagreeing'");
  }
  shell("rm " + config("gw8"));
}

TEST_F(PlanTest, ASnapshotOfANewerVersionIsRefusedUnlessAllowed) {
  ASSERT_TRUE(cs::save({"newer", ConfSave::CURRENT_VERSION + 1}));
  cs::RestoreOptions options = without_keeping();
  const cs::Id id{"newer", ConfSave::CURRENT_VERSION + 1};
  EXPECT_EQ(cs::plan(id, options).error().code, Code::newer);
  EXPECT_EQ(cs::restore(id, options).error().code, Code::newer);
  options.allow_newer = true;
  EXPECT_TRUE(cs::restore(id, options));
}

TEST_F(PlanTest, AnotherPlanThanTheExpectedOneIsRefused) {
  shell("rm " + config("gw1.conf"));
  const auto plan = cs::plan({"weekly"});
  ASSERT_TRUE(plan);
  shell("rm " + config("gw2.conf"));
  auto options = without_keeping();
  options.expected = *plan;
  const auto before = everything(true);
  EXPECT_EQ(refused(options).code, Code::changed_meanwhile);
  EXPECT_EQ(everything(true), before);
  // The same lines, but not the same file.
  write_file(config("station"), "shown");
  options.expected = *cs::plan({"weekly"});
  write_file(config("station"), "since");
  EXPECT_EQ(refused(options).code, Code::changed_meanwhile);
  EXPECT_EQ(read_file(config("station")), "since");
  options.expected = *cs::plan({"weekly"});
  EXPECT_TRUE(cs::restore({"weekly"}, options));
}

TEST_F(PlanTest, WithoutTheRightsOfRootOwnersAreNotCompared) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  constexpr uid_t kNobody = 65534;
  shell("chown -R 65534:65534 " + root() + " " + etc_dir() + " && chown 7:7 " + config("gw1.conf") +
        " && chmod 644 " + config("gw1.conf") + " && rm " + config("gw2.conf"));
  ASSERT_EQ(seteuid(kNobody), 0);
  const Texts lines = planned();
  const auto result = cs::restore({"weekly"}, without_keeping());
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(lines, (Texts{".p... <config>/gw1.conf", "+.... <config>/gw2.conf"}));
  ASSERT_TRUE(result) << shown(result.error());
  struct stat status = {};
  ASSERT_EQ(stat(config("gw2.conf").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, kNobody);
}

}  // namespace
