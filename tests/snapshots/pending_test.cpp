#include <fcntl.h>
#include <sqlite3.h>

#include <functional>
#include <thread>

#include "snapshots/pending.h"
#include "snapshots/small_disk.h"

namespace {

using namespace test;
using namespace std::chrono_literals;
using cs::Code;
using cs::When;
using Outcome = cs::Recovery::Outcome;

TEST_F(PendingTest, ARestoreWaitsForItsConfirmation) {
  const auto now = std::time(nullptr);
  const auto result = cs::restore({"weekly"}, windowed());
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(result->outcome, cs::Restored::Outcome::pending);
  EXPECT_GE(result->deadline, now + 60);
  EXPECT_LE(result->deadline, now + 62);
  EXPECT_EQ(everything(), saved_);
  EXPECT_EQ(load_time(), "NULL");
  const auto pending = cs::pending();
  ASSERT_TRUE(pending && *pending);
  EXPECT_EQ((*pending)->name, "weekly");
  EXPECT_EQ((*pending)->version, ConfSave::CURRENT_VERSION);
  EXPECT_FALSE((*pending)->is_checked);
  EXPECT_NE((*pending)->author, "");
  EXPECT_NEAR(static_cast<double>((*pending)->seconds_left), 59.5, 1);
  EXPECT_LE(std::abs((*pending)->deadline - result->deadline), 1);

  const auto confirmed = cs::confirm();
  ASSERT_TRUE(confirmed) << shown(confirmed.error());
  EXPECT_EQ(confirmed->name, "weekly");
  EXPECT_EQ(confirmed->warnings, Texts());
  EXPECT_EQ(everything(), saved_);
  EXPECT_EQ(load_time(), "<now>");
  const auto after = cs::pending();
  EXPECT_TRUE(after && !*after);
}

TEST_F(PendingTest, AnEmptyPlanLeavesNothingPending) {
  make_pending();
  ASSERT_TRUE(cs::confirm());
  const auto result = cs::restore({"weekly"}, windowed());
  ASSERT_TRUE(result);
  EXPECT_EQ(result->outcome, cs::Restored::Outcome::unchanged);
  EXPECT_FALSE(*cs::pending());
}

TEST_F(PendingTest, ARevertBringsTheVeryFilesBack) {
  make_pending();
  const cs::Recovery recovery = reverted();
  EXPECT_EQ(recovery.outcome, Outcome::reverted);
  EXPECT_EQ(recovery.name, "weekly");
  EXPECT_EQ(recovery.kept, "");
  EXPECT_EQ(recovery.warnings, Texts());
  expect_as_before();
}

TEST_F(PendingTest, WhoeverComesSecondIsSaidWhatTheFirstDid) {
  const auto expect = [](const cs::Error& error, const std::string& text) {
    EXPECT_EQ(error.code, Code::not_pending);
    EXPECT_EQ(error.text.substr(0, text.size()), text);
  };
  expect(not_confirmed(), "no restore is pending");
  make_pending();
  make_due();
  expect(not_confirmed(), "the time of the restore of 'weekly' was up, and it was taken back");
  make_pending();
  restart();
  expect(not_confirmed(), "the restore of 'weekly' was not confirmed before a restart, and was taken back");
  make_pending();
  reverted();
  expect(not_confirmed(), "no restore is pending; that of 'weekly' was taken back at ");
  expect(cs::revert(When::now).error(), "no restore is pending; that of 'weekly' was taken back at ");
  make_pending();
  make_due();
  reverted(When::if_due);
  expect(not_confirmed(),
         "no restore is pending; that of 'weekly' was not confirmed in time, and was taken back at ");
  make_pending();
  restart();
  reverted(When::if_due);
  expect(not_confirmed(),
         "no restore is pending; that of 'weekly' was not confirmed before a restart, and was taken back ");
  make_pending();
  ASSERT_TRUE(cs::confirm());
  expect(cs::revert(When::now).error(), "no restore is pending; that of 'weekly' was confirmed at ");
  EXPECT_EQ(reverted(When::if_due).outcome, Outcome::nothing);
}

TEST_F(PendingTest, BeforeItsTimeNothingTakesItBack) {
  make_pending();
  EXPECT_EQ(reverted(When::if_due).outcome, Outcome::nothing);
  EXPECT_EQ(cs::recover().error().code, Code::pending);
  EXPECT_EQ(everything(), saved_);
  reverted();
}

TEST_F(PendingTest, WhenItsTimeIsUpEveryCallThatChangesSomethingTakesItBack) {
  const std::vector<std::function<void()>> calls = {
      [] { reverted(When::if_due); },
      [] { reverted(When::when_due); },
      [] { EXPECT_EQ(cs::recover()->outcome, Outcome::reverted); },
      [] { EXPECT_TRUE(cs::save({"other"}, overwriting())); },
      [] { EXPECT_EQ(cs::remove({"nosuch"}).code, Code::not_found); },
      [] { EXPECT_EQ(cs::note({"weekly"}, "text").code, Code::ok); },
      [] { EXPECT_EQ(not_confirmed().code, Code::not_pending); }};
  for (std::size_t number = 0; number < 2 * calls.size(); ++number) {
    make_pending();
    number % 2 == 0 ? make_due() : restart();
    const auto pending = cs::pending();
    ASSERT_TRUE(pending && *pending);
    EXPECT_EQ((*pending)->seconds_left, 0);
    calls[number / 2]();
    SCOPED_TRACE(number);
    expect_as_before();
  }
}

TEST_F(PendingTest, WhileItIsPendingItIsNotDisturbed) {
  make_pending();
  EXPECT_EQ(refused(windowed()).code, Code::pending);
  EXPECT_EQ(cs::plan({"weekly"}).error().code, Code::pending);
  const auto saved = cs::save({"weekly"}, overwriting());
  EXPECT_EQ(saved ? Code::ok : saved.error().code, Code::pending);
  EXPECT_EQ(cs::remove({"weekly"}).code, Code::pending);
  EXPECT_TRUE(cs::save({"other"}));
  EXPECT_EQ(cs::remove({"other"}).code, Code::ok);
  reverted();
  expect_as_before();
}

TEST_F(PendingTest, WhatWasEditedSinceIsKeptAsASnapshot) {
  make_pending();
  write_file(config("gw1.conf"), "edited in place");
  shell("cd " + config_dir() + " && echo renamed > new && mv new hub/key && echo again > user/nat.conf");
  const cs::Recovery recovery = reverted();
  EXPECT_EQ(recovery.warnings, Texts());
  EXPECT_EQ(recovery.kept.substr(0, 11), "reverted-20");
  EXPECT_EQ(content(recovery.kept, config("gw1.conf")), "edited in place");
  EXPECT_EQ(content(recovery.kept, config("hub/key")), "renamed\n");
  EXPECT_EQ(content(recovery.kept, config("user/nat.conf")), "again\n");
  expect_as_before();
}

/// Locks the storage for a while when it is about to be closed after the edits were stored.
class Latecomer {
 public:
  explicit Latecomer(const std::string& storage) : holder_(storage) {
    here = this;
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(watch));
  }
  Latecomer(const Latecomer&) = delete;
  Latecomer& operator=(const Latecomer&) = delete;
  ~Latecomer() {
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(watch));
    here = nullptr;
    if (release_.joinable()) release_.join();
  }

  bool has_come() const { return has_come_; }

 private:
  static int watch(sqlite3* db, const char**, const sqlite3_api_routines*) {
    return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, see, nullptr);
  }

  static int see(unsigned, void*, void*, void* text) {
    if (here != nullptr && std::string(static_cast<const char*>(text)) == "begin exclusive") here->come();
    return 0;
  }

  void come() {
    if (has_come_ || holder_.value("select count(*) from Config where name like 'reverted-%'") == "0")
      return;
    has_come_ = true;
    holder_.run("begin exclusive");
    release_ = std::thread([this] {
      std::this_thread::sleep_for(500ms);
      holder_.run("rollback");
    });
  }

  static Latecomer* here;
  Database holder_;
  bool has_come_ = false;
  std::thread release_;
};

Latecomer* Latecomer::here = nullptr;

TEST_F(PendingTest, TheNameOfTheEditsIsNotLostToALockedStorage) {
  make_pending();
  write_file(config("gw1.conf"), "edited in place");
  const Latecomer latecomer(database());
  const auto result = cs::revert(When::now, {100ms});
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_TRUE(latecomer.has_come());
  EXPECT_EQ(content(result->kept, config("gw1.conf")), "edited in place");
  expect_as_before();
}

TEST_F(PendingTest, AttributesAreEditedToo) {
  make_pending();
  shell("chmod 444 " + config("gw1.conf"));
  EXPECT_NE(reverted().kept, "");
  expect_as_before();
  make_pending();
  if (geteuid() == 0) shell("chown 1:1 " + config("gw1.conf"));
  EXPECT_NE(reverted().kept.empty(), geteuid() == 0);
  expect_as_before();
}

TEST_F(PendingTest, TheModeOfADirectoryComesBackWhoeverChangedIt) {
  shell("cd " + config_dir() + " && rm station && mkdir -m 750 station && touch station/one");
  saved("weekly", overwriting());
  saved_ = everything();
  shell("chmod 700 " + config("station"));
  change();
  make_pending();
  shell("chmod 777 " + config("station"));
  EXPECT_EQ(reverted().warnings, Texts());
  expect_as_before();
}

/// As after a restore that failed when it was pending, and was killed when one file was back.
TEST_F(PendingTest, WhatIsHalfUndoneIsNotConfirmed) {
  make_pending();
  const std::string slots = config(staging_directories().at(0)) + "/";
  for (const std::string& name : names_in(slots)) {
    if (read_file(slots + name) != "changed") continue;
    ASSERT_EQ(
        renameat2(AT_FDCWD, (slots + name).c_str(), AT_FDCWD, config("gw1.conf").c_str(), RENAME_EXCHANGE),
        0);
  }
  const cs::Error error = not_confirmed();
  EXPECT_EQ(error.code, Code::not_pending);
  EXPECT_EQ(error.text, "the restore of 'weekly' had failed, and was taken back");
  expect_as_before();
}

TEST_F(PendingTest, AConfirmationNamesWhatItCannotDelete) {
  make_pending();
  const std::string staging = staging_directories().at(0);
  shell("mv " + config_dir() + " " + root() + "/away && mkdir " + config_dir());
  const auto confirmed = cs::confirm();
  ASSERT_TRUE(confirmed) << shown(confirmed.error());
  ASSERT_EQ(confirmed->warnings.size(), 1U);
  EXPECT_NE(confirmed->warnings[0].find(staging), std::string::npos) << confirmed->warnings[0];
  shell("rmdir " + config_dir() + " && mv " + root() + "/away " + config_dir() + " && rm -r " +
        config_dir() + staging);
}

TEST_F(PendingTest, ADirectoryThatIsGoneIsNamed) {
  make_pending();
  shell("mv " + config("user") + " " + root() + "/away");
  const auto result = cs::revert(When::now, {1s});
  ASSERT_FALSE(result);
  EXPECT_EQ(without_root(result.error().path), "<config>/user");
  EXPECT_NE(result.error().text.find("make this directory, then run 'confsave recover'"), std::string::npos)
      << result.error().text;
  shell("ln -s " + root() + "/away " + config("user"));
  const auto again = cs::recover();
  ASSERT_FALSE(again);
  EXPECT_NE(again.error().text.find("put a directory here, then run 'confsave recover'"), std::string::npos)
      << again.error().text;
  shell("rm " + config("user") + " && mv " + root() + "/away " + config("user"));
  EXPECT_TRUE(cs::recover());
  expect_as_before();
}

TEST_F(PendingTest, ARelativeDirectoryIsRefused) {
  const std::string before = std::filesystem::current_path();
  std::filesystem::current_path(root());
  const std::pair<const char*, const char*> settings[] = {{"KELMOR_DYNAMIC_DIR", "state"},
                                                          {"KELMOR_TEMP_DIR", "temp"}};
  for (const auto& [setting, directory] : settings) {
    const std::string usual = getenv(setting);
    ASSERT_TRUE(std::filesystem::is_directory(directory));
    setenv(setting, directory, 1);
    const cs::Error error = refused(windowed());
    setenv(setting, usual.c_str(), 1);
    EXPECT_EQ(error.code, Code::bad_argument);
    EXPECT_EQ(error.path, directory);
    expect_as_before();
  }
  std::filesystem::current_path(before);
}

TEST_F(PendingTest, AWayBackIsNotTakenForALeftover) {
  make_pending();
  setenv("KELMOR_CONFIG_PATH", (root() + "/./config/").c_str(), 1);
  const auto status = cs::status();
  setenv("KELMOR_CONFIG_PATH", config_dir().c_str(), 1);
  ASSERT_TRUE(status);
  for (const auto& one : status->attention) EXPECT_NE(one.code, "leftovers") << one.text;
  reverted();
}

TEST_F(PendingTest, WhoWaitsOutlastsAJournalThatIsMissingForAWhile) {
  make_pending();
  std::thread waiter([] { EXPECT_EQ(reverted(When::when_due).outcome, Outcome::reverted); });
  std::this_thread::sleep_for(200ms);
  const std::string file = state_dir() + "/restore.db";
  make_due();
  shell("mv " + file + " " + root() + "/moved");
  // Longer than it sleeps.
  std::this_thread::sleep_for(5500ms);
  shell("mv " + root() + "/moved " + file);
  waiter.join();
  expect_as_before();
}

TEST_F(PendingTest, ADeletionCountsAsAnEdit) {
  make_pending();
  shell("rm " + config("gw1.conf"));
  const cs::Recovery recovery = reverted();
  EXPECT_NE(recovery.kept, "");
  EXPECT_EQ(recovery.warnings, Texts());
  EXPECT_EQ(content(recovery.kept, config("gw1.conf")).substr(0, 16), "the snapshot has");
  expect_as_before();
}

TEST_F(PendingTest, EditsOfOtherFilesStay) {
  make_pending();
  write_file(config("user/gateway.conf"), "of somebody");
  EXPECT_EQ(reverted().kept, "");
  EXPECT_EQ(read_file(config("user/gateway.conf")), "of somebody");
}

TEST_F(PendingTest, ADirectoryThatIsMadeAnewStaysWithItsFiles) {
  shell("mkdir " + config("gw5") + " && touch " + config("gw5/made"));
  saved("weekly", overwriting());
  saved_ = everything();
  shell("rm -r " + config("gw5"));
  change();
  make_pending();
  shell("cd " + config_dir() +
        " && rm -r gw5 && mkdir gw5 other && mv gw5 away && mkdir gw5 && rmdir away other "
        "&& touch gw5/mine");
  const cs::Recovery recovery = reverted();
  EXPECT_TRUE(exists(config("gw5/mine")));
  EXPECT_FALSE(recovery.warnings.empty());
  shell("rm -r " + config("gw5"));
  EXPECT_EQ(everything(true), before_);
}

TEST_F(PendingTest, ADirectoryInThePlaceOfAnOldOneGivesWay) {
  shell("mkdir " + config("gw5") + " && touch " + config("gw5/old"));
  change();
  make_pending();
  shell("mkdir " + config("gw5") + " && touch " + config("gw5/old") + " " + config("gw5/new"));
  const cs::Recovery recovery = reverted();
  EXPECT_EQ(everything(true), before_);
  ASSERT_EQ(recovery.warnings.size(), 1U);
  const std::string path = recovery.warnings[0].substr(0, recovery.warnings[0].find(": "));
  EXPECT_TRUE(exists(path + "/new")) << recovery.warnings[0];
  std::filesystem::remove_all(std::filesystem::path(path).parent_path());
}

TEST_F(PendingTest, WhatCannotBeKeptIsSetAside) {
  make_pending();
  write_file(config("gw1.conf"), "edited");
  shell("rm " + state_dir() + "/storage.db* && mkdir " + state_dir() + "/storage.db");
  const cs::Recovery recovery = reverted();
  EXPECT_EQ(recovery.kept, "");
  ASSERT_EQ(recovery.warnings.size(), 2U);
  EXPECT_NE(recovery.warnings[0].find("not kept as a snapshot"), std::string::npos);
  const std::string path = recovery.warnings[1].substr(0, recovery.warnings[1].find(": "));
  EXPECT_EQ(read_file(path), "edited");
  EXPECT_EQ(everything(true), before_);
  std::filesystem::remove_all(std::filesystem::path(path).parent_path());
  shell("rmdir " + state_dir() + "/storage.db");
}

TEST_F(PendingTest, NeitherTheStorageNorTheNotesAreNeeded) {
  for (const bool keeps : {false, true}) {
    make_pending();
    shell("cp " + state_dir() + "/storage.db " + root() + "/copy && rm " + state_dir() + "/storage.db " +
          state_dir() + "/notes.db");
    if (keeps) {
      const auto confirmed = cs::confirm();
      ASSERT_TRUE(confirmed) << shown(confirmed.error());
      EXPECT_EQ(confirmed->warnings.size(), 1U);
      EXPECT_EQ(everything(), saved_);
    } else {
      EXPECT_EQ(reverted().outcome, Outcome::reverted);
      EXPECT_EQ(everything(true), before_);
    }
    shell("cp " + root() + "/copy " + state_dir() + "/storage.db");
  }
  ASSERT_TRUE(cs::recover());
}

TEST_F(PendingTest, OnAFullDiskARecoveryGivesUpTheLoadTime) {
  // The stamp changes the length of the row: SQLite writes all of it again.
  shell("head -c 300000 /dev/urandom > " + config("gw2.conf"));
  saved("weekly", overwriting());
  saved_ = everything();
  write_file(config("gw1.conf"), "changed again");
  shell("cp -a " + state_dir() + " " + root() + "/copy");
  const SmallDisk disk(state_dir(), 2 << 20);
  shell("cp -a " + root() + "/copy/. " + state_dir());
  make_pending();
  disk.fill();
  shell("truncate -s -100K " + state_dir() + "/filler");
  const auto confirmed = cs::confirm();
  ASSERT_TRUE(confirmed) << shown(confirmed.error());
  EXPECT_EQ(confirmed->warnings.size(), 1U);
  const auto recovered = cs::recover();
  ASSERT_TRUE(recovered) << shown(recovered.error());
  EXPECT_EQ(recovered->warnings.size(), 1U);
  EXPECT_EQ(load_time(), "NULL");
  EXPECT_EQ(staging_directories(), Texts());
  const auto left = cs::unfinished();
  EXPECT_TRUE(left && !*left);
}

TEST_F(PendingTest, AHeldStorageDelaysARevertButDoesNotPreventAnExpiry) {
  make_pending();
  {
    Database holder(state_dir() + "/storage.db");
    holder.run("begin exclusive");
    EXPECT_EQ(cs::revert(When::now, {100ms}).error().code, Code::busy);
    EXPECT_EQ(everything(), saved_);
    make_due();
    const auto result = cs::revert(When::if_due, {100ms});
    ASSERT_TRUE(result) << shown(result.error());
    EXPECT_EQ(result->outcome, Outcome::reverted);
    EXPECT_EQ(result->warnings.size(), 1U);
  }
  expect_as_before();
}

TEST_F(PendingTest, ARestoreThatNobodyCouldTakeBackDoesNotBegin) {
  for (const char* program : {"/nonexistent/confsave", "/etc/passwd", "/etc"}) {
    cs::RestoreOptions options = windowed();
    options.program = program;
    const cs::Error error = refused(options);
    EXPECT_EQ(error.path, program);
    EXPECT_NE(error.number, 0);
    EXPECT_EQ(error.aftermath, cs::Aftermath::untouched);
    expect_as_before();
  }
  // One that ends at once waits for nothing.
  cs::RestoreOptions ends = windowed();
  ends.program = "/bin/true";
  EXPECT_EQ(refused(ends).text, "the program ended before it waited for the end of the window");
  expect_as_before();
  for (const auto window : {9s, -1s, 86401s}) {
    EXPECT_EQ(refused(windowed(window)).code, Code::bad_argument);
  }
  cs::RestoreOptions options = windowed();
  options.target = root();
  EXPECT_EQ(refused(options).code, Code::bad_argument);
  expect_as_before();
}

TEST_F(PendingTest, ARestoreThatFailsLeavesNothingArmed) {
  cs::RestoreOptions options = windowed();
  options.check = [] { return false; };
  EXPECT_EQ(refused(options).code, Code::check_failed);
  expect_as_before();
  EXPECT_EQ(not_confirmed().text, "no restore is pending");
}

TEST_F(PendingTest, AfterAGoodCheckItWaitsForItsConfirmation) {
  cs::RestoreOptions options = windowed();
  options.check = [] {
    const auto pending = cs::pending();
    EXPECT_TRUE(pending && *pending && (*pending)->is_checked);
    EXPECT_EQ(not_confirmed().code, Code::pending);
    EXPECT_EQ(cs::revert(When::now, {100ms}).error().code, Code::pending);
    std::this_thread::sleep_for(2s);
    return true;
  };
  const auto result = cs::restore({"weekly"}, options);
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(result->outcome, cs::Restored::Outcome::pending);
  // The check takes nothing of the time.
  EXPECT_GE((*cs::pending())->seconds_left, 59);
  EXPECT_EQ(reverted().outcome, Outcome::reverted);
  expect_as_before();
}

}  // namespace
