#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "snapshots/journal.h"
#include "snapshots/restoring.h"

namespace {

using namespace test;
using cs::Code;
using cs::Recovery;
using cs::State;

class RecoverTest : public Restoring {
 protected:
  /// A restore after `change`, whose process dies after it has exchanged all files, and has written that
  /// state.
  void interrupt(State state, const std::string& change = "rm gw1.conf && touch gw9.conf",
                 const std::string& damaged = "user/gateway.conf") {
    if (!damaged.empty()) write_file(config(damaged), "damaged\n");
    ASSERT_EQ(shell("cd " + config_dir() + " && " + change), 0);
    before_ = everything(true);
    const pid_t child = fork();
    if (child == 0) {
      cs::RestoreOptions options = exactly();
      options.keep = false;
      options.check = []() -> bool { _exit(0); };
      static_cast<void>(cs::restore({"weekly"}, options));
      _exit(1);
    }
    int status = 1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(everything(), saved_);
    Database(journal()).run("update restore set state = " + std::to_string(static_cast<int>(state)));
  }

  std::string journal() const { return state_dir() + "/restore.db"; }

  Recovery recovered() const {
    const auto result = cs::recover();
    EXPECT_TRUE(result) << shown(result ? cs::Error{} : result.error());
    return result ? *result : Recovery{};
  }

  cs::Error not_recovered() const {
    const auto result = cs::recover();
    return result ? cs::Error{} : result.error();
  }

  void expect_undone() {
    EXPECT_EQ(everything(true), before_);
    EXPECT_EQ(query("select load_time from Config where name = 'weekly'")[0][0], "NULL");
    EXPECT_EQ(recovered().outcome, Recovery::Outcome::nothing);
  }

  std::map<std::string, std::string> before_;
};

TEST_F(RecoverTest, WithoutARestoreThereIsNothingToDo) {
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::nothing);
  EXPECT_FALSE(exists(journal()));
}

TEST_F(RecoverTest, BeforeThePointOfNoReturnTheVeryFilesComeBack) {
  interrupt(State::prepared);
  const auto found = cs::unfinished();
  ASSERT_TRUE(found && *found);
  EXPECT_EQ((*found)->name, "weekly");
  EXPECT_FALSE((*found)->is_pending);
  EXPECT_EQ(cs::plan({"weekly"}).error().code, Code::needs_attention);
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

TEST_F(RecoverTest, AfterItTheRestoreIsFinished) {
  interrupt(State::exchanged);
  const Recovery recovery = recovered();
  EXPECT_EQ(recovery.outcome, Recovery::Outcome::finished);
  EXPECT_EQ(recovery.name, "weekly");
  EXPECT_EQ(everything(), saved_);
  EXPECT_EQ(query("select load_time from Config where name = 'weekly'")[0][0], "<now>");
}

TEST_F(RecoverTest, ACheckWhoseProcessDiedHasFailed) {
  interrupt(State::checking);
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

/// Who calls another function than recover() gets neither of them.
TEST_F(RecoverTest, ItsEndAndItsWarningsAreLogged) {
  interrupt(State::prepared, "rm -rf hub");
  write_file(config("hub/mine"), "of somebody\n");
  host.system_log.clear();
  saved("next");
  const std::string& line = host.system_log.at(0).second;
  EXPECT_EQ(line.find("confsave: action=recover result=undone snapshot=weekly"), 0U) << line;
  EXPECT_NE(line.find("warning=\"" + config("hub") + ": this directory"), std::string::npos) << line;
  shell("rm -r " + config("hub"));
  expect_undone();
}

TEST_F(RecoverTest, TheNextRestoreRecoversFirst) {
  interrupt(State::prepared);
  const auto result = cs::restore({"weekly"}, without_keeping());
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(lines(result->plan), (Texts{"+.... <config>/gw1.conf", "c...t <config>/user/gateway.conf"}));
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::nothing);
  shell("rm " + config("gw9.conf"));
}

TEST_F(RecoverTest, AFileOfSomebodyElseIsLeftAloneAndNamed) {
  interrupt(State::prepared);
  shell("cd " + config_dir() + " && echo edited > new && mv new user/gateway.conf");
  const auto error = not_recovered();
  EXPECT_EQ(error.code, Code::needs_attention);
  EXPECT_EQ(without_root(error.path), "<config>/user/gateway.conf");
  EXPECT_EQ(error.aftermath, cs::Aftermath::mixed);
  EXPECT_EQ(read_file(config("user/gateway.conf")), "edited\n");
  shell("mv " + config("user/gateway.conf") + " " + root() + "/edited");
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

TEST_F(RecoverTest, WhereNothingWasBeforeNoFileOfBeforeIsNamed) {
  interrupt(State::prepared);
  shell("cd " + config_dir() + " && echo edited > new && mv new gw1.conf");
  const auto error = not_recovered();
  EXPECT_EQ(without_root(error.path), "<config>/gw1.conf");
  EXPECT_EQ(error.text,
            "somebody else has put this file here. Move this one away, then run 'confsave recover'");
  shell("mv " + config("gw1.conf") + " " + root() + "/edited");
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

TEST_F(RecoverTest, NothingIsPutIntoADirectoryOfSomebodyElse) {
  interrupt(State::prepared, "rm station && mkdir station && touch station/one station/two");
  shell("cd " + config_dir() + " && rm station && mkdir station && touch station/mine");
  const auto error = not_recovered();
  EXPECT_EQ(error.code, Code::needs_attention);
  EXPECT_EQ(without_root(error.path), "<config>/station");
  for (const char* file : {"station/one", "station/two"}) {
    EXPECT_NE(error.text.find(config(file)), std::string::npos) << error.text;
  }
  EXPECT_EQ(names_in(config("station")), Texts{"mine"});
  shell("mv " + config("station") + " " + root() + "/mine");
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

TEST_F(RecoverTest, AnUnfinishedCleanUpKeepsOutARestoreAndNothingElse) {
  interrupt(State::exchanged);
  const std::string slots = config(staging_directories().at(0));
  const std::string slot = slots + "/" + names_in(slots).at(0);
  // What is mounted on cannot be deleted.
  ASSERT_EQ(mount(slot.c_str(), slot.c_str(), nullptr, MS_BIND, nullptr), 0);
  host.system_log.clear();
  saved("next");
  EXPECT_EQ(cs::remove({"next"}).code, Code::ok);
  EXPECT_EQ(cs::note({"weekly"}, "text").code, Code::ok);
  const auto error = refused();
  EXPECT_EQ(error.number, EBUSY) << shown(error);
  EXPECT_EQ(error.path, slot);
  EXPECT_EQ(error.aftermath, cs::Aftermath::untouched);
  EXPECT_TRUE(exists(slot));
  EXPECT_EQ(everything(), saved_);
  ASSERT_EQ(umount(slot.c_str()), 0);
  for (const auto& [level, line] : host.system_log) {
    EXPECT_EQ(line.find("action=recover"), std::string::npos) << "before it is done: " << line;
  }
  EXPECT_EQ(refused(without_keeping()).code, Code::ok);
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::nothing);
}

TEST_F(RecoverTest, WhatWasEditedDuringACheckIsKeptAsASnapshot) {
  interrupt(State::checking);
  shell("cd " + config_dir() + " && echo edited > new && mv new user/gateway.conf");
  const Recovery recovery = recovered();
  EXPECT_EQ(recovery.warnings, Texts());
  EXPECT_EQ(content(recovery.kept, config("user/gateway.conf")), "edited\n");
  expect_undone();
}

TEST_F(RecoverTest, WhatCannotBeKeptIsSetAsideAndNamed) {
  interrupt(State::checking);
  shell("cd " + config_dir() + " && echo edited > new && mv new user/gateway.conf");
  // Without a manifest nothing proves that the snapshot has it.
  write_file(state_dir() + "/notes.db", "no database");
  Recovery recovery = recovered();
  EXPECT_EQ(content(recovery.kept, config("user/gateway.conf")), "edited\n");
  ASSERT_EQ(recovery.warnings.size(), 2U);
  EXPECT_EQ(
      recovery.warnings[0].find("'" + recovery.kept + "': the comment, the author and the list of files"),
      0U)
      << recovery.warnings[0];
  const std::string path = recovery.warnings[1].substr(0, recovery.warnings[1].find(": "));
  EXPECT_EQ(read_file(path), "edited\n");
  std::filesystem::remove_all(std::filesystem::path(path).parent_path());
  expect_undone();
}

TEST_F(RecoverTest, AnotherDirectoryInThePlaceIsNotTouched) {
  interrupt(State::prepared);
  shell("mv " + config_dir() + " " + root() + "/away && mkdir " + config_dir());
  EXPECT_EQ(not_recovered().code, Code::needs_attention);
  EXPECT_EQ(names_in(config_dir()), Texts());
  shell("rmdir " + config_dir() + " && mv " + root() + "/away " + config_dir());
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

/// Every file system has the same inode number for its root.
TEST_F(RecoverTest, WithoutTheStagingDirectoryItIsAnotherFileSystem) {
  for (const State state : {State::prepared, State::checking, State::reverting}) {
    interrupt(state, "rm -f gw1.conf");
    const auto mixture = everything(true);
    const std::string staging = config(staging_directories().at(0));
    shell("mv " + staging + " " + root() + "/away");
    const auto error = not_recovered();
    EXPECT_EQ(error.code, Code::needs_attention);
    EXPECT_NE(error.text.find("is missing"), std::string::npos) << shown(error);
    EXPECT_EQ(everything(true), mixture);
    shell("mv " + root() + "/away " + staging);
    EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
    expect_undone();
  }
}

TEST_F(RecoverTest, AFileThatCameBackByHandIsNoSignOfAnUndo) {
  interrupt(State::exchanged);
  const std::string slots = config(staging_directories().at(0));
  // It has the inode, the size and the time of the one that the clean-up has deleted.
  ASSERT_EQ(shell("mv $(find " + slots + " -name '[0-9]*' -empty) " + config("gw9.conf")), 0);
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::finished);
  EXPECT_TRUE(exists(config("gw9.conf")));
  shell("rm " + config("gw9.conf"));
  EXPECT_EQ(everything(), saved_);
}

TEST_F(RecoverTest, ADirectoryThatTheRestoreMadeStaysWithTheFilesOfOthers) {
  shell("chmod 2750 " + config("hub"));
  saved("weekly", overwrite());
  saved_ = everything();
  for (const State state : {State::prepared, State::checking}) {
    interrupt(state, "rm -rf hub");
    write_file(config("hub/mine"), "of somebody\n");
    const Recovery recovery = recovered();
    EXPECT_EQ(recovery.outcome, Recovery::Outcome::undone);
    EXPECT_EQ(recovery.warnings,
              Texts{config("hub") +
                    ": this directory, which was not there before, stays: there are other files in it"});
    EXPECT_EQ(names_in(config("hub")), Texts{"mine"});
    struct stat status = {};
    ASSERT_EQ(stat(config("hub").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 02750));
    shell("rm -r " + config("hub"));
    expect_undone();
  }
}

TEST_F(RecoverTest, AnUndoThatHadBegunNeedsEveryDirectory) {
  interrupt(State::exchanged, "echo damaged > " + etc_dir() + "failover.ini");
  const std::string slots = config(staging_directories().at(0));
  ASSERT_EQ(names_in(slots).size(), 1U);
  const std::string slot = slots + "/" + names_in(slots).at(0);
  const std::string live = config("user/gateway.conf");
  shell("mv " + slot + " " + root() + "/old && mv " + live + " " + slot + " && mv " + root() + "/old " +
        live);
  const std::string etc = etc_dir().substr(0, etc_dir().size() - 1);
  shell("mv " + etc + " " + etc + "-away && mkdir " + etc);
  const auto error = not_recovered();
  EXPECT_EQ(error.code, Code::needs_attention) << shown(error);
  EXPECT_EQ(error.path, etc_dir());
  shell("rmdir " + etc + " && mv " + etc + "-away " + etc);
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

/// A person has written a removed file again, and it got the inode that the clean-up had freed.
TEST_F(RecoverTest, AFileThatComesBackByHandIsNoUndo) {
  shell("rm " + config("gw1.conf"));
  saved("weekly", overwrite());
  saved_ = everything();
  for (const char* name : {"gw6.conf", "gw7.conf", "gw8.conf"}) write_file(config(name), name);
  interrupt(State::exchanged, "touch gw6.conf", "");
  const std::string slots = config(staging_directories().at(0)) + "/";
  shell("mv $(grep -l gw7 " + slots + "*) " + config("gw7.conf") + " && rm " + slots + "0");
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::finished);
  EXPECT_TRUE(exists(config("gw7.conf")));
  EXPECT_FALSE(exists(config("gw6.conf")));
  EXPECT_FALSE(exists(config("gw8.conf")));
}

TEST_F(RecoverTest, TheStorageIsNotNeeded) {
  interrupt(State::prepared);
  shell("mv " + database() + " " + root() + "/away");
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  shell("mv " + root() + "/away " + database());
  expect_undone();
}

TEST_F(RecoverTest, ARecordThatCannotBeUnderstoodIsLeftAlone) {
  interrupt(State::prepared);
  const auto mixture = everything(true);
  const std::string good = root() + "/good";
  shell("cp " + journal() + " " + good);
  const char* const changes[] = {
      "sqlite3 restore.db 'pragma user_version = 99'",
      "sqlite3 restore.db 'update restore set state = 99'",
      "sqlite3 restore.db 'delete from root'",
      "sqlite3 restore.db 'drop table step'",
      "sqlite3 restore.db 'update step set what = 7'",
      "sqlite3 restore.db 'update restore set ending = 5'",
      "echo this is no database > restore.db",
      "rm restore.db && mkdir restore.db",
      // The page of the table "restore".
      "dd if=/dev/urandom of=restore.db bs=4096 seek=1 count=1 conv=notrunc status=none",
  };
  for (const char* change : changes) {
    ASSERT_EQ(shell("cd " + state_dir() + " && " + change), 0) << change;
    const auto error = not_recovered();
    EXPECT_EQ(error.code, Code::needs_attention) << change;
    EXPECT_EQ(error.path, journal()) << change;
    EXPECT_EQ(refused().code, Code::needs_attention) << change;
    EXPECT_FALSE(cs::unfinished()) << change;
    EXPECT_EQ(everything(true), mixture) << change;
    shell("rm -r " + journal() + " && cp " + good + " " + journal());
  }
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

/// SQLite does not notice a wrong bit in a number.
TEST_F(RecoverTest, ARecordThatFilesContradictDeletesNone) {
  interrupt(State::prepared);
  const auto mixture = everything(true);
  const std::string staging = "<config>/" + staging_directories().at(0) + "/";
  for (const State state : {State::staging, State::undone}) {
    Database(journal()).run("update restore set state = " + std::to_string(static_cast<int>(state)));
    const auto error = not_recovered();
    EXPECT_EQ(error.code, Code::needs_attention);
    EXPECT_EQ(without_root(error.path).find(staging), 0U) << error.path;
    EXPECT_EQ(error.text.find("the record of the restore says that this file of before is back as '" +
                              config("")),
              0U)
        << error.text;
    EXPECT_EQ(failure({"other"}).code, Code::needs_attention);
    EXPECT_EQ(everything(true), mixture);
  }
  Database(journal()).run("update restore set state = " +
                          std::to_string(static_cast<int>(State::prepared)));
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

/// Whoever deletes the file that a message names must not delete the record of a restore.
TEST_F(RecoverTest, WhatIsInTheWayOfTheRecordIsNamed) {
  interrupt(State::prepared);
  const std::string rollback = journal() + "-journal";
  shell("rm -f " + rollback + " && mkdir " + rollback);
  const auto error = not_recovered();
  EXPECT_EQ(error.code, Code::needs_attention);
  EXPECT_EQ(error.path, rollback);
  EXPECT_EQ(error.text, "this is not a regular file; move it away, then run 'confsave recover'");
  shell("rmdir " + rollback);
  EXPECT_EQ(recovered().outcome, Recovery::Outcome::undone);
  expect_undone();
}

}  // namespace
