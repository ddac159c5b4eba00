#include <sys/mount.h>
#include <sys/stat.h>

#include "snapshots/lock.h"
#include "snapshots/pending.h"
#include "snapshots/recover.h"
#include "support/process.h"

namespace {

using namespace test;
using cs::Code;
using cs::When;
using Outcome = cs::Recovery::Outcome;

/// A pending restore, and something in the way of its end.
class PendingFaults : public PendingTest {
 protected:
  static cs::Error not_reverted() {
    const auto result = cs::revert(When::now, {1s});
    return result ? cs::Error{} : result.error();
  }
};

/// Half of the old files would be worse than all of the new ones.
TEST_F(PendingFaults, ARevertThatCannotSucceedDoesNotBegin) {
  const struct {
    std::string attribute, path, text;
  } cases[] = {{"i", "gw1.conf", "this is immutable"},
               {"a", "hub/key", "this can only be appended to"},
               {"i", "hub", "this is immutable"}};
  for (const auto& c : cases) {
    make_pending();
    ASSERT_EQ(shell("chattr +" + c.attribute + " " + config(c.path)), 0) << "no attributes here?";
    const cs::Error demanded = not_reverted();
    make_due();
    for (const cs::Error& error : {demanded, cs::recover().error(), failure({"other"})}) {
      EXPECT_EQ(without_root(error.path), "<config>/" + c.path);
      EXPECT_EQ(error.text.find(c.text), 0U) << error.text;
      EXPECT_EQ(error.aftermath, cs::Aftermath::untouched);
    }
    EXPECT_EQ(everything(), saved_);
    ASSERT_EQ(shell("chattr -" + c.attribute + " " + config(c.path)), 0);
    EXPECT_EQ(reverted().outcome, Outcome::reverted);
    expect_as_before();
  }
}

TEST_F(PendingFaults, ARevertOnAReadOnlyFileSystemDoesNotBegin) {
  make_pending();
  ASSERT_EQ(mount(config_dir().c_str(), config_dir().c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, config_dir().c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const cs::Error error = not_reverted();
  EXPECT_EQ(error.number, EROFS) << shown(error);
  EXPECT_EQ(error.aftermath, cs::Aftermath::untouched);
  EXPECT_EQ(everything(), saved_);
  ASSERT_EQ(umount(config_dir().c_str()), 0);
  EXPECT_EQ(reverted().outcome, Outcome::reverted);
  expect_as_before();
}

TEST_F(PendingFaults, ACheckThatFailsTakesNothingBackThatCannotGoBack) {
  cs::RestoreOptions options = without_keeping();
  options.check = [this] {
    shell("chattr +i " + config("gw1.conf"));
    return false;
  };
  const cs::Error error = refused(options);
  shell("chattr -i " + config("gw1.conf"));
  EXPECT_EQ(without_root(error.path), "<config>/gw1.conf");
  EXPECT_NE(error.text.find("the new files are live until a recovery takes them back"), std::string::npos)
      << error.text;
  EXPECT_EQ(error.aftermath, cs::Aftermath::mixed);
  EXPECT_TRUE(cs::recover());
  expect_as_before();
}

/// While the edits are packed the storage is not locked. Who locks it then could pack a mixture; who
/// reads the journal keeps it from saying that they move.
TEST_F(PendingFaults, ACheckThatFailsMovesNoFileUnlessItMay) {
  for (const bool is_storage : {true, false}) {
    cs::RestoreOptions options = without_keeping();
    options.wait = 100ms;
    options.check = [this] {
      write_file(config("gw1.conf"), "edited");
      return false;
    };
    std::optional<LockHolder> saver;
    std::optional<Database> reader;
    host.on_command = [&](const std::string&) -> std::optional<int> {
      if (is_storage && !saver) saver.emplace(database(), 60000);
      if (is_storage || reader) return {};
      reader.emplace(state_dir() + "/restore.db");
      reader->run("begin");
      reader->query("select * from step");
      return {};
    };
    const cs::Error error = refused(options);
    host.on_command = nullptr;
    EXPECT_EQ(error.code, Code::check_failed);
    EXPECT_EQ(error.aftermath, cs::Aftermath::mixed);
    EXPECT_NE(error.text.find("not put back"), std::string::npos) << error.text;
    EXPECT_EQ(read_file(config("gw1.conf")), "edited");
    EXPECT_TRUE(exists(config("hub/key")));
    saver.reset();
    reader.reset();
    const auto recovered = cs::recover();
    ASSERT_TRUE(recovered) << shown(recovered.error());
    EXPECT_EQ(content(recovered->kept, config("gw1.conf")), "edited");
    expect_as_before();
  }
}

/// Whoever reads the storage must not make the files go back.
TEST_F(PendingFaults, AConfirmationDoesNotNeedTheStorage) {
  make_pending();
  {
    const Database reader(database());
    reader.run("begin; select * from Config");
    reader.run("select * from Config");
    const auto confirmed = cs::confirm({100ms});
    ASSERT_TRUE(confirmed) << shown(confirmed.error());
    ASSERT_EQ(confirmed->warnings.size(), 1U);
    EXPECT_EQ(confirmed->warnings[0], "the load time is not stored: " + database() +
                                          ": the storage cannot be opened, or another process locks it");
    const auto status = cs::status();
    ASSERT_TRUE(status);
    const auto is_told = [](const cs::Attention& attention) {
      return attention.code == "interrupted" &&
             attention.text ==
                 "the restore of 'weekly' is kept, but not cleaned up: run 'confsave recover'";
    };
    EXPECT_TRUE(std::any_of(status->attention.begin(), status->attention.end(), is_told));
  }
  EXPECT_EQ(everything(), saved_);
  EXPECT_EQ(cs::recover()->outcome, Outcome::finished);
  EXPECT_EQ(everything(), saved_);
  EXPECT_EQ(load_time(), "<now>");
}

/// Code::failed is logged once for each reason, however often who waits for the window tries.
TEST_F(PendingFaults, AFailureIsLoggedOnce) {
  make_pending();
  make_due();
  shell("chattr +i " + config("gw1.conf"));
  auto& log = TestHost::instance().system_log;
  log.clear();
  cs::Error logged;
  for (int i = 0; i < 3; ++i) {
    cs::Error unfinished;
    const auto lock = cs::Lock::take("a test", cs::Deadline(1s));
    ASSERT_TRUE(lock);
    const auto recovery =
        cs::recover_under_lock(cs::Deadline(1s), unfinished, cs::Demand::when_due, &logged);
    EXPECT_FALSE(recovery);
  }
  EXPECT_EQ(log.size(), 1U);
  EXPECT_FALSE(cs::recover());
  EXPECT_EQ(log.size(), 2U);
  shell("chattr -i " + config("gw1.conf"));
  EXPECT_EQ(reverted().outcome, Outcome::reverted);
}

/// Nobody would look for it in a storage that is made anew where the real one is not mounted.
TEST_F(PendingFaults, WhatWasEditedDoesNotGoIntoAnotherStorage) {
  for (const bool is_empty : {false, true}) {
    make_pending();
    write_file(config("gw1.conf"), "edited");
    shell("mv " + database() + " " + root() + "/away");
    if (is_empty) write_file(database(), "");
    const cs::Recovery recovery = reverted();
    EXPECT_EQ(recovery.kept, "");
    ASSERT_EQ(recovery.warnings.size(), 2U);
    EXPECT_EQ(recovery.warnings[0].find("what was edited since the restore is not kept as a snapshot"), 0U);
    EXPECT_NE(recovery.warnings[1].find("'" + config("gw1.conf") + "' is not as the restore has left it"),
              std::string::npos)
        << recovery.warnings[1];
    const std::string path = recovery.warnings[1].substr(0, recovery.warnings[1].find(": "));
    EXPECT_EQ(read_file(path), "edited");
    std::filesystem::remove_all(std::filesystem::path(path).parent_path());
    shell("rm -f " + database() + " && mv " + root() + "/away " + database());
    expect_as_before();
  }
}

/// Root makes the files that the gateway's own user needs.
TEST_F(PendingFaults, AFileThatRootMakesBelongsToTheOwnerOfTheDirectory) {
  constexpr uid_t kNobody = 65534;
  cs::RestoreOptions exactly = without_keeping();
  exactly.exact = true;
  ASSERT_TRUE(cs::restore({"weekly"}, exactly));
  shell("rm -f " + state_dir() + "/* && chown 65534:65534 " + state_dir());
  ASSERT_TRUE(cs::save({"weekly"}));
  write_file(config("gw1.conf"), "changed since");
  make_pending();
  reverted();
  cs::RestoreOptions options = without_keeping();
  options.check = [] { return false; };
  EXPECT_EQ(refused(options).code, Code::check_failed);
  EXPECT_EQ(cs::note({"weekly"}, "text").code, Code::ok);
  for (const std::string& name : names_in(state_dir())) {
    struct stat status = {};
    ASSERT_EQ(stat((state_dir() + "/" + name).c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kNobody) << name;
  }
  shell("chown -R 0:0 " + state_dir());
}

}  // namespace
