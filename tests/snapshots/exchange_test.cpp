// What an exchange, and its undo, do about files and directories of somebody else.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "snapshots/exchange.h"
#include "snapshots/saving.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

class ExchangeTest : public Saving {
 protected:
  ExchangeTest() {
    write_file(config("live"), "old");
    write_file(config("elsewhere"), "of somebody else");
    std::filesystem::create_directory(staging());
    std::filesystem::permissions(staging(), std::filesystem::perms::owner_all);
  }

  std::string staging() const { return config(".confsave-restore-0123456789abcdef"); }
  std::string slot(int number) const { return staging() + "/" + std::to_string(number); }

  static struct stat status_of(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
  }

  /// A step about `path` as it is now, with what is staged in its slot.
  void add(Step::What what, const std::string& path) {
    Step step;
    step.what = what;
    step.path = path;
    if (exists(config(path))) {
      const struct stat now = status_of(config(path));
      step.before = identity_of(now);
      step.old = {now.st_mode & 07777U, now.st_uid, now.st_gid};
    }
    if (what == Step::What::attributes) step.after = step.before;
    const std::string staged = slot(static_cast<int>(steps_.size()));
    if (what == Step::What::put) step.after = identity_of(status_of(staged));
    steps_.push_back(step);
  }

  void put(const std::string& path) {
    write_file(slot(static_cast<int>(steps_.size())), "new");
    add(Step::What::put, path);
  }

  /// More directories than a process keeps open.
  static constexpr int kMany = 200;
  void put_into_many() {
    for (int i = 0; i < kMany; ++i) {
      const std::string directory = "many/" + std::to_string(i);
      std::filesystem::create_directories(config(directory));
      put(directory + "/file");
    }
  }

  Exchange exchange() {
    if (sites_.empty()) {
      const struct stat status = status_of(config_dir());
      auto sites = open_sites({{config_dir(), status.st_ino, ".confsave-restore-0123456789abcdef"}},
                              Need::old_files);
      EXPECT_TRUE(sites);
      sites_ = std::move(*sites);
    }
    return {sites_, steps_};
  }

  /// What exchanges the two files in the middle of which a process is killed.
  void exchange_only(int number) const {
    const std::string live = config(steps_[static_cast<std::size_t>(number)].path);
    ASSERT_EQ(renameat2(AT_FDCWD, live.c_str(), AT_FDCWD, slot(number).c_str(), RENAME_EXCHANGE), 0);
  }

  std::vector<Step> steps_;
  std::vector<Site> sites_;
};

TEST_F(ExchangeTest, AFileWhoseModeOrOwnerChangedIsPutBack) {
  for (const char* change : {"chmod 604 ", "chown 7 ", "chgrp 7 ", "chmod u+s "}) {
    steps_.clear();
    put("live");
    ASSERT_EQ(shell(change + config("live")), 0);
    const struct stat before = status_of(config("live"));
    EXPECT_EQ(exchange().apply(0).code, Code::changed_meanwhile) << change;
    const struct stat now = status_of(config("live"));
    EXPECT_EQ(now.st_ino, before.st_ino) << change;
    EXPECT_EQ(now.st_mode, before.st_mode) << change;
    EXPECT_EQ(read_file(slot(0)), "new") << change;
  }
  steps_.clear();
  add(Step::What::remove, "elsewhere");
  shell("rm " + slot(0) + " && chmod 604 " + config("elsewhere"));
  EXPECT_EQ(exchange().apply(0).code, Code::changed_meanwhile);
  EXPECT_EQ(read_file(config("elsewhere")), "of somebody else");
}

TEST_F(ExchangeTest, ADirectoryWhoseModeOrOwnerChangedKeepsThem) {
  add(Step::What::attributes, "hub");
  steps_[0].fresh = {0711, 3, 3};
  const mode_t old_mode = status_of(config("hub")).st_mode;
  ASSERT_EQ(shell("chmod 1700 " + config("hub")), 0);
  EXPECT_EQ(exchange().apply(0).code, Code::changed_meanwhile);
  Exchange undoing = exchange();
  EXPECT_EQ(undoing.undo(0, Foreign::leave).code, Code::ok);
  EXPECT_EQ(undoing.kept(), Texts{config("hub") + ": the mode and the owner of this directory stay: " +
                                  "somebody has changed them since"});
  EXPECT_EQ(status_of(config("hub")).st_mode, static_cast<mode_t>(S_IFDIR | 01700));
  // Without a change of others both directions set what was recorded.
  chmod(config("hub").c_str(), old_mode & 07777U);
  EXPECT_EQ(exchange().apply(0).code, Code::ok);
  EXPECT_EQ(status_of(config("hub")).st_mode, static_cast<mode_t>(S_IFDIR | 0711));
  // As after a kill between the two.
  chmod(config("hub").c_str(), old_mode & 07777U);
  EXPECT_EQ(status_of(config("hub")).st_uid, 3U);
  EXPECT_EQ(exchange().undo(0, Foreign::leave).code, Code::ok);
  EXPECT_EQ(status_of(config("hub")).st_mode, old_mode);
  EXPECT_EQ(status_of(config("hub")).st_uid, 0U);
}

TEST_F(ExchangeTest, AKillBeforeAForeignFileIsExchangedBackLosesNothing) {
  put("live");
  shell("mv " + config("elsewhere") + " " + config("live"));
  const struct stat foreign = status_of(config("live"));
  exchange_only(0);
  ASSERT_EQ(read_file(config("live")), "new");
  // Twice: a recovery can be killed, too.
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(exchange().undo(0, Foreign::leave).code, Code::ok);
    EXPECT_EQ(status_of(config("live")).st_ino, foreign.st_ino);
    EXPECT_EQ(read_file(config("live")), "of somebody else");
    EXPECT_EQ(read_file(slot(0)), "new");
  }
}

TEST_F(ExchangeTest, AKillBeforeAForeignFileIsMovedBackLosesNothing) {
  add(Step::What::remove, "live");
  shell("mv " + config("elsewhere") + " " + config("live") + " && mv " + config("live") + " " + slot(0));
  EXPECT_EQ(exchange().undo(0, Foreign::leave).code, Code::ok);
  EXPECT_EQ(read_file(config("live")), "of somebody else");
  EXPECT_FALSE(exists(slot(0)));
}

TEST_F(ExchangeTest, AnUndoThatCannotLookAtAFileSaysSo) {
  if (geteuid() != 0) GTEST_SKIP() << "root may look at everything";
  add(Step::What::remove, "live");
  put("elsewhere");
  shell("chmod 755 " + root() + " " + config_dir());
  for (const std::size_t number : {0U, 1U}) {
    ASSERT_EQ(exchange().apply(number).code, Code::ok);
    constexpr uid_t kNobody = 65534;
    ASSERT_EQ(seteuid(kNobody), 0);
    const Error error = exchange().undo(number, Foreign::leave);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(error.code, Code::denied) << number;
    EXPECT_EQ(error.path, slot(static_cast<int>(number))) << number;
    EXPECT_EQ(exchange().undo(number, Foreign::leave).code, Code::ok) << number;
  }
  EXPECT_EQ(read_file(config("live")), "old");
  EXPECT_EQ(read_file(config("elsewhere")), "of somebody else");
}

TEST_F(ExchangeTest, ADirectoryThatWasMovedAwayIsNoticedAmongMany) {
  put_into_many();
  for (int i = 0; i < kMany; i += 50) {
    for (const char* change : {"", " && mkdir "}) {
      SCOPED_TRACE(std::to_string(i) + change);
      sites_.clear();
      Exchange exchange = this->exchange();
      for (int number = 0; number < kMany; ++number) {
        ASSERT_EQ(exchange.apply(static_cast<std::size_t>(number)).code, Code::ok);
      }
      EXPECT_EQ(exchange.check_directories().code, Code::ok);
      const std::string moved = config("many/" + std::to_string(i));
      shell("mv " + moved + " " + root() + "/away" + (*change == 0 ? "" : change + moved));
      const Error error = exchange.check_directories();
      EXPECT_EQ(error.code, Code::changed_meanwhile);
      EXPECT_EQ(error.path, moved);
      shell("rm -rf " + moved + " && mv " + root() + "/away " + moved);
      for (std::size_t number = kMany; number-- > 0;) {
        ASSERT_EQ(exchange.undo(number, Foreign::leave).code, Code::ok);
      }
    }
  }
}

TEST_F(ExchangeTest, ADirectoryThatCannotBeLookedAtWasNotMovedAway) {
  if (geteuid() != 0) GTEST_SKIP() << "root may look at everything";
  put("user/gateway.conf");
  Exchange exchange = this->exchange();
  ASSERT_EQ(exchange.apply(0).code, Code::ok);
  ASSERT_EQ(shell("chmod 700 " + config_dir()), 0);
  constexpr uid_t kNobody = 65534;
  ASSERT_EQ(seteuid(kNobody), 0);
  const Error error = exchange.check_directories();
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(error.code, Code::denied);
  EXPECT_EQ(error.number, EACCES);
}

TEST_F(ExchangeTest, NothingIsPutIntoADirectoryThatTookThePlaceOfOneAmongMany) {
  put_into_many();
  Exchange exchange = this->exchange();
  // The first one is closed again when all have been looked at.
  for (int i = 0; i < kMany; ++i) ASSERT_TRUE(sites_[0].beneath.directory("many/" + std::to_string(i)));
  shell("mv " + config("many/0") + " " + root() + "/away && mkdir " + config("many/0"));
  EXPECT_EQ(exchange.apply(0).code, Code::changed_meanwhile);
  EXPECT_EQ(names_in(config("many/0")), Texts());
  EXPECT_EQ(read_file(slot(0)), "new");
}

}  // namespace
