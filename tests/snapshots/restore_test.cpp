#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "snapshots/restoring.h"

namespace {

using namespace test;
using cs::Action;
using cs::Aftermath;
using cs::Code;
using cs::Restored;

class RestoreTest : public Restoring {
 protected:
  /// Changes a file of each directory, and loses one.
  void damage() const {
    write_file(config("user/gateway.conf"), "damaged\n");
    write_file(etc_dir() + "failover.ini", "damaged\n");
    shell("rm " + config("hub/out"));
  }

  cs::RestoreOptions with_check(std::function<bool()> check) const {
    cs::RestoreOptions options = without_keeping();
    options.check = std::move(check);
    return options;
  }

  std::string load_time() const {
    return query("select load_time from Config where name = 'weekly'")[0][0];
  }
};

TEST_F(RestoreTest, AnEqualConfigurationIsLeftAlone) {
  const auto before = everything(true);
  const Restored result = restored();
  EXPECT_EQ(result.outcome, Restored::Outcome::unchanged);
  EXPECT_EQ(everything(true), before);
  EXPECT_EQ(load_time(), "NULL");
}

TEST_F(RestoreTest, BringsBackWhatChanged) {
  damage();
  const Restored result = restored();
  EXPECT_EQ(result.outcome, Restored::Outcome::restored);
  EXPECT_EQ(everything(), saved_);
  EXPECT_EQ(load_time(), "<now>");
}

TEST_F(RestoreTest, WritesOnlyWhatDiffers) {
  const auto before = everything(true);
  damage();
  restored();
  auto after = everything(true);
  for (const char* path :
       {"<config>/user/gateway.conf", "<config>/hub/out", "/mnt/main/etc/failover.ini"}) {
    // A new file may get the inode of one that was deleted.
    const bool was_deleted = path == std::string("<config>/hub/out");
    EXPECT_TRUE(was_deleted || after[path] != before.at(path)) << path;
    after[path] = before.at(path);
  }
  EXPECT_EQ(after, before);
}

TEST_F(RestoreTest, AFailedCheckBringsBackTheVeryFiles) {
  damage();
  const auto before = everything(true);
  const auto is_restored = [this] {
    EXPECT_EQ(everything(), saved_);
    const auto found = cs::unfinished();
    EXPECT_TRUE(found && *found && (*found)->is_pending && (*found)->name == "weekly");
    EXPECT_EQ(refused().code, Code::pending);
    const auto recovered = cs::recover();
    EXPECT_TRUE(!recovered && recovered.error().code == Code::pending);
    saved("meanwhile");
    const auto members = cs::members({"meanwhile"});
    EXPECT_TRUE(members);
    for (const cs::Member& member : members ? *members : cs::Members()) {
      EXPECT_EQ(member.path.find(".confsave-restore-"), std::string::npos) << member.path;
    }
    return false;
  };
  const auto error = refused(with_check(is_restored));
  EXPECT_EQ(error.code, Code::check_failed);
  EXPECT_EQ(error.aftermath, Aftermath::put_back);
  EXPECT_EQ(everything(true), before);
  EXPECT_EQ(load_time(), "NULL");
  EXPECT_FALSE(*cs::unfinished());
}

TEST_F(RestoreTest, ACheckThatThrowsFails) {
  damage();
  const auto before = everything(true);
  const auto error = refused(with_check([]() -> bool { throw std::runtime_error("no"); }));
  EXPECT_EQ(error.code, Code::check_failed);
  EXPECT_EQ(everything(true), before);
}

/// No load time is stored of a restore into a target.
TEST_F(RestoreTest, ACheckOfATargetNeedsNoStorage) {
  cs::RestoreOptions options;
  options.target = root() + "/elsewhere";
  options.wait = std::chrono::milliseconds(100);
  ASSERT_EQ(mkdir(options.target.c_str(), 0700), 0);
  std::optional<Database> holder;
  options.check = [&] {
    holder.emplace(database());
    holder->run("begin exclusive");
    return true;
  };
  const auto result = cs::restore({"weekly"}, options);
  holder.reset();
  ASSERT_TRUE(result) << result.error().text;
  EXPECT_EQ(result->warnings, Texts());
  for (const std::string& name : names_in(options.target)) {
    EXPECT_EQ(name.find(".confsave-"), std::string::npos) << name;
  }
  EXPECT_FALSE(*cs::unfinished());
}

TEST_F(RestoreTest, ASuccessfulCheckConfirms) {
  damage();
  bool was_called = false;
  restored(with_check([&] { return was_called = true; }));
  EXPECT_TRUE(was_called);
  EXPECT_EQ(everything(), saved_);
  EXPECT_EQ(load_time(), "<now>");
}

TEST_F(RestoreTest, KeepsThePresentConfiguration) {
  damage();
  const auto damaged = everything();
  auto result = cs::restore({"weekly"});
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(result->kept.substr(0, 12), "before-load-");
  result = cs::restore({result->kept}, exactly());
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(everything(), damaged);
  EXPECT_EQ(result->kept, "weekly");
}

TEST_F(RestoreTest, AnOldKeptSnapshotThatIsLoadedStays) {
  const std::string oldest = "before-load-2001-01-01-00-00-00";
  saved(oldest);
  for (int i = 1; i <= 6; ++i) put({"before-load-2001-01-01-00-00-0" + std::to_string(i), 0});
  damage();
  for (const Restored::Outcome outcome : {Restored::Outcome::restored, Restored::Outcome::unchanged}) {
    const auto result = cs::restore({oldest});
    ASSERT_TRUE(result) << shown(result.error());
    EXPECT_EQ(result->outcome, outcome);
    EXPECT_EQ(everything(), saved_);
  }
  EXPECT_EQ(query("select count(*) from Config where name = '" + oldest + "'")[0][0], "1");
  EXPECT_EQ(query("select count(*) from Config where name like 'before-load-%'")[0][0], "6");
}

TEST_F(RestoreTest, WhatVouchesForTheContentOfAFileIsNotCarriedOver) {
  const std::string file = config("user/gateway.conf");
  // A capability, as the kernel stores it: version 2, effective, CAP_NET_BIND_SERVICE.
  const std::string capability(
      "\x01\x00\x00\x02\x00\x04\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00", 20);
  damage();
  const auto set = [&file](const char* name, const std::string& value) {
    return setxattr(file.c_str(), name, value.data(), value.size(), 0) == 0;
  };
  if (!set("security.capability", capability)) GTEST_SKIP() << "no capabilities of files here";
  const char* ordinary = set("user.origin", "by hand") ? "user.origin" : "trusted.origin";
  ASSERT_TRUE(set(ordinary, "by hand"));
  restored();
  EXPECT_EQ(everything(), saved_);
  EXPECT_EQ(getxattr(file.c_str(), "security.capability", nullptr, 0), -1);
  EXPECT_EQ(getxattr(file.c_str(), ordinary, nullptr, 0), 7);
}

TEST_F(RestoreTest, AnArchiveIsDecodedAgainOnlyForWhatDoesNotFit) {
  const std::string large(6 << 20, 'x');
  write_file(config("user/gateway.conf"), large + "1");
  write_file(config("gw1"), large + "2");
  cs::SaveOptions again;
  again.overwrite = true;
  saved("weekly", again);
  saved_ = everything();
  const auto read_again = [this](const std::vector<std::string>& files) {
    for (const std::string& file : files) write_file(config(file), "damaged\n");
    cs::RestoreOptions options = without_keeping();
    bool reads = false;
    options.progress = [&reads](const cs::Progress& progress) {
      reads = reads || (progress.phase == cs::Progress::Phase::staging && progress.done > 0);
    };
    restored(options);
    EXPECT_EQ(everything(), saved_) << files.front();
    return reads;
  };
  EXPECT_FALSE(read_again({"user/gateway.conf"}));
  EXPECT_TRUE(read_again({"user/gateway.conf", "gw1"}));
  EXPECT_FALSE(read_again({"gw1"}));
}

TEST_F(RestoreTest, AFileThatGoesWhileItIsStagedHasChanged) {
  const std::string file = config("user/gateway.conf");
  for (const char* change : {"true", "ln -s /nowhere ", "mkdir ", "cp /etc/passwd "}) {
    write_file(file, "damaged\n");
    const auto before = everything();
    cs::RestoreOptions options = without_keeping();
    bool is_staging = false;
    options.progress = [&](const cs::Progress& progress) {
      if (is_staging || progress.phase != cs::Progress::Phase::staging) return;
      is_staging = true;
      shell("rm " + file + " && " + change + (change == std::string("true") ? "" : file));
    };
    const auto error = refused(options);
    EXPECT_TRUE(is_staging) << change;
    EXPECT_EQ(error.code, Code::changed_meanwhile) << change << shown(error);
    EXPECT_EQ(error.path, file) << change;
    EXPECT_EQ(error.aftermath, Aftermath::untouched) << change;
    shell("rm -rf " + file);
    write_file(file, "damaged\n");
    EXPECT_EQ(everything().size(), before.size()) << change;
  }
}

TEST_F(RestoreTest, ADirectoryThatTheCheckMovesAwayIsReported) {
  const std::string new_content = read_file(config("user/gateway.conf"));
  damage();
  const auto before = everything(true);
  const std::string away = root() + "/away";
  for (const char* link : {"", "ln -s /nowhere "}) {
    const auto moves = [&] {
      shell("mv " + config("user") + " " + away);
      if (*link != 0) shell(link + config("user"));
      return false;
    };
    const auto error = refused(with_check(moves));
    EXPECT_EQ(error.aftermath, Aftermath::mixed) << link;
    EXPECT_NE(error.text.find(config("user")), std::string::npos) << shown(error);
    EXPECT_EQ(read_file(away + "/gateway.conf"), new_content) << link;
    EXPECT_FALSE(exists(config("user/gateway.conf"))) << link;
    shell("rm -f " + config("user") + " && mv " + away + " " + config("user"));
    const auto recovered = cs::recover();
    ASSERT_TRUE(recovered) << shown(recovered.error());
    EXPECT_EQ(recovered->outcome, cs::Recovery::Outcome::undone) << link;
    EXPECT_EQ(everything(true), before) << link;
  }
}

TEST_F(RestoreTest, AReaderOfTheJournalDelaysARestoreButDoesNotUndoIt) {
  damage();
  restored();
  damage();
  Database reader(state_dir() + "/restore.db");
  reader.run("begin; select * from restore");
  cs::RestoreOptions options = without_keeping();
  options.wait = std::chrono::milliseconds(100);
  const auto error = refused(options);
  EXPECT_EQ(error.code, Code::busy) << shown(error);
  EXPECT_EQ(error.aftermath, Aftermath::untouched);
  reader.run("commit");
  std::thread release;
  options.check = [&] {
    reader.run("begin; select * from restore");
    release = std::thread([&reader] {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      reader.run("commit");
    });
    return true;
  };
  const auto result = cs::restore({"weekly"}, options);
  release.join();
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(everything(), saved_);
}

TEST_F(RestoreTest, AJournalThatMayNotBeReadIsDenied) {
  if (geteuid() != 0) GTEST_SKIP() << "root may read everything";
  damage();
  restored();
  ASSERT_EQ(shell("chmod 755 " + root() + " " + state_dir()), 0);
  constexpr uid_t kNobody = 65534;
  ASSERT_EQ(seteuid(kNobody), 0);
  const auto found = cs::unfinished();
  const auto plan = cs::plan({"weekly"});
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().code, Code::denied) << shown(found.error());
  EXPECT_EQ(found.error().path, state_dir() + "/restore.db");
  EXPECT_EQ(plan.error().code, Code::denied);
}

TEST_F(RestoreTest, NamesOfOneFileAreLinkedAgain) {
  shell("ln -f " + config("gw1.conf") + " " + config("gw2.conf"));
  saved("linked");
  shell("cd " + config_dir() + " && cp -p gw1.conf x && mv x gw2.conf");
  ASSERT_FALSE(std::filesystem::equivalent(config("gw1.conf"), config("gw2.conf")));
  ASSERT_TRUE(cs::restore({"linked"}, without_keeping()));
  EXPECT_TRUE(std::filesystem::equivalent(config("gw1.conf"), config("gw2.conf")));
  ASSERT_TRUE(cs::restore({"weekly"}, without_keeping()));
  EXPECT_FALSE(std::filesystem::equivalent(config("gw1.conf"), config("gw2.conf")));
  EXPECT_EQ(everything(), saved_);
}

TEST_F(RestoreTest, ANameIsLinkedAgainToAFileOfWhichAnotherNameChanges) {
  shell("ln -f " + config("gw1.conf") + " " + config("gw2.conf"));
  saved("linked");
  shell("cd " + config_dir() + " && rm gw2.conf && ln -f gw1.conf linkmap.dat");
  ASSERT_TRUE(cs::restore({"linked"}, without_keeping()));
  EXPECT_TRUE(std::filesystem::equivalent(config("gw1.conf"), config("gw2.conf")));
  EXPECT_FALSE(std::filesystem::equivalent(config("gw1.conf"), config("linkmap.dat")));
}

TEST_F(RestoreTest, KindsOfFileTakeEachOthersPlaces) {
  shell("cd " + config_dir() +
        " && rm station hub/key gw2.conf && mkdir station hub/key && touch station/x" +
        " && ln -s gw1.conf gw2.conf && rm -r hub/out && ln -s /nowhere hub/out");
  saved("other");
  const auto other = everything();
  EXPECT_EQ(planned(exactly()),
            (Texts{"cp..t <config>/gw2.conf", "cp..t <config>/hub/key", "cp..t <config>/hub/out",
                   "cp..t <config>/station", "-.... <config>/station/x"}));
  restored(exactly());
  EXPECT_EQ(everything(), saved_);
  ASSERT_TRUE(cs::restore({"other"}, without_keeping()));
  EXPECT_EQ(everything(), other);
}

}  // namespace
