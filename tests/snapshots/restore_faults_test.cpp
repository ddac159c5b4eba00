// Restores whose journal fails, whose destinations are replaced, or that lack the rights of root.

#include <grp.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstddef>

#include "snapshots/restoring.h"

namespace {

using namespace test;
using cs::Aftermath;
using cs::Code;

class RestoreFaults : public Restoring {
 protected:
  void damage() {
    write_file(config("user/gateway.conf"), "damaged\n");
    shell("rm " + config("hub/out"));
    before_ = everything(true);
  }

  std::string journal() const { return state_dir() + "/restore.db"; }

  cs::RestoreOptions with_check(std::function<bool()> check) const {
    cs::RestoreOptions options = without_keeping();
    options.check = std::move(check);
    return options;
  }

  /// Calls `work` when all is staged, and before the first live file changes.
  static cs::RestoreOptions before_the_exchange(const std::function<void()>& work) {
    cs::RestoreOptions options = without_keeping();
    options.progress = [work](const cs::Progress& progress) {
      if (progress.phase == cs::Progress::Phase::exchange) work();
    };
    return options;
  }

  /// A copy takes the place of the configuration directory.
  void replace_configuration() const {
    ASSERT_EQ(shell("cd " + root() + " && mv config away && cp -a away config"), 0);
  }
  void bring_it_back() const { ASSERT_EQ(shell("cd " + root() + " && rm -r config && mv away config"), 0); }

  void expect_recovered() const {
    const auto recovered = cs::recover();
    ASSERT_TRUE(recovered) << shown(recovered.error());
    EXPECT_EQ(recovered->outcome, cs::Recovery::Outcome::undone);
    EXPECT_EQ(everything(true), before_);
  }

  std::map<std::string, std::string> before_;
};

TEST_F(RestoreFaults, WhatTheJournalDoesNotTakeIsUndone) {
  damage();
  restored();
  damage();
  Database database(journal());
  const std::string table = database.query("select sql from sqlite_master where name = 'restore'")[0][0];
  database.run("drop table restore; " + table.substr(0, table.size() - 1) + ", check (state <> 2))");
  const cs::Error error = refused(without_keeping());
  EXPECT_EQ(error.aftermath, Aftermath::put_back) << shown(error);
  EXPECT_EQ(everything(true), before_);
}

/// A write that failed may be durable all the same. The files may only move back when the journal says so.
TEST_F(RestoreFaults, NothingMovesBackWhenTheJournalMaySayThatItStays) {
  shell("mkdir " + config("gw5") + " && echo made > " + config("gw5/made"));
  saved("weekly", overwrite());
  saved_ = everything();
  shell("rm -r " + config("gw5"));
  damage();
  rlimit usual = {};
  getrlimit(RLIMIT_FSIZE, &usual);
  const auto before = std::signal(SIGXFSZ, SIG_IGN);
  const cs::Error error = refused(with_check([&usual] {
    const rlimit nothing = {0, usual.rlim_max};
    return setrlimit(RLIMIT_FSIZE, &nothing) == 0;
  }));
  setrlimit(RLIMIT_FSIZE, &usual);
  std::signal(SIGXFSZ, before);
  EXPECT_EQ(error.aftermath, Aftermath::mixed) << shown(error);
  for (const std::string& path :
       {journal(), config("hub/out"), config("user/gateway.conf"), config("gw5") + ","}) {
    const std::size_t at = error.text.find(path);
    EXPECT_NE(at, std::string::npos) << error.text;
    EXPECT_EQ(error.text.find(path, at + 1), std::string::npos) << "twice: " << error.text;
  }
  EXPECT_EQ(everything(), saved_);
  expect_recovered();
}

/// The first commit since a file exists fails when it has taken effect, and nothing can be written after
/// it. A journal that SQLite keeps ends a commit with a header of zeros.
class LateFailure {
 public:
  explicit LateFailure(const std::string& path) {
    file() = path;
    has_failed() = false;
    sqlite3_vfs* const files = sqlite3_vfs_find(nullptr);
    for (const char* call : kCalls) {
      files->xSetSystemCall(files, call, reinterpret_cast<sqlite3_syscall_ptr>(write_there));
    }
  }
  ~LateFailure() {
    sqlite3_vfs* const files = sqlite3_vfs_find(nullptr);
    for (const char* call : kCalls) files->xSetSystemCall(files, call, nullptr);
  }
  LateFailure(const LateFailure&) = delete;
  LateFailure& operator=(const LateFailure&) = delete;

 private:
  static constexpr const char* kCalls[] = {"pwrite", "pwrite64"};
  static constexpr std::size_t kHeader = 28;

  static std::string& file() {
    static std::string path;
    return path;
  }
  static bool& has_failed() {
    static bool failed = false;
    return failed;
  }
  static ssize_t write_there(int descriptor, const void* bytes, std::size_t size, off_t offset) {
    const bool is_end = offset == 0 && size == kHeader && exists(file());
    const ssize_t written = has_failed() ? 0 : pwrite(descriptor, bytes, size, offset);
    has_failed() = has_failed() || is_end;
    if (!has_failed()) return written;
    errno = EIO;
    return -1;
  }
};

/// The journal says that the files have changed places, and does not take that they are about to go back.
TEST_F(RestoreFaults, NothingMovesBackWhenTheJournalSaysThatItStays) {
  damage();
  cs::Error error;
  {
    const LateFailure failing(config("hub/out"));
    error = refused(without_keeping());
  }
  EXPECT_EQ(error.aftermath, Aftermath::mixed) << shown(error);
  EXPECT_NE(error.text.find(journal()), std::string::npos) << error.text;
  EXPECT_EQ(everything(), saved_);
  const auto recovered = cs::recover();
  ASSERT_TRUE(recovered) << shown(recovered.error());
  EXPECT_EQ(recovered->outcome, cs::Recovery::Outcome::finished);
  EXPECT_EQ(everything(), saved_);
}

TEST_F(RestoreFaults, ADestinationThatAnotherOneReplacesIsNotRestored) {
  damage();
  const cs::Error error = refused(before_the_exchange([this] { replace_configuration(); }));
  EXPECT_EQ(error.code, Code::changed_meanwhile) << shown(error);
  EXPECT_EQ(error.path, config_dir());
  EXPECT_EQ(error.aftermath, Aftermath::put_back);
  bring_it_back();
  EXPECT_EQ(everything(true), before_);
}

TEST_F(RestoreFaults, ADestinationThatTheCheckReplacesIsReported) {
  damage();
  for (const bool is_good : {true, false}) {
    const cs::Error error = refused(with_check([&] {
      replace_configuration();
      return is_good;
    }));
    EXPECT_EQ(error.path, config_dir()) << shown(error);
    EXPECT_EQ(error.aftermath, Aftermath::mixed) << shown(error);
    EXPECT_EQ(cs::recover().error().code, Code::needs_attention);
    bring_it_back();
    expect_recovered();
  }
}

TEST_F(RestoreFaults, ARecordOfAnotherRestoreIsNotWritten) {
  damage();
  std::string name;
  const cs::Error error = refused(with_check([&] {
    Database database(journal());
    name = database.query("select staging from root where number = 1")[0][0];
    database.run("update root set staging = '.confsave-restore-0000000000000000' where number = 1");
    return true;
  }));
  EXPECT_EQ(error.code, Code::not_pending) << shown(error);
  EXPECT_EQ(error.aftermath, Aftermath::mixed);
  Database(journal()).run("update root set staging = '" + name + "' where number = 1");
  expect_recovered();
}

/// The same file system, so that the number of the device tells nothing.
TEST_F(RestoreFaults, WhatIsMountedOnIsRefusedBeforeAnythingChanges) {
  damage();
  shell("chmod 2711 " + config("hub"));
  before_ = everything(true);
  for (const std::string& path : {config("hub"), config("user"), config("user/gateway.conf")}) {
    ASSERT_EQ(mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0) << path;
    const cs::Error error = refused(without_keeping());
    EXPECT_EQ(umount(path.c_str()), 0);
    EXPECT_EQ(error.number, EXDEV) << shown(error);
    EXPECT_EQ(error.path, path);
    EXPECT_EQ(error.aftermath, Aftermath::untouched);
    EXPECT_EQ(everything(true), before_);
  }
}

/// Many gateways keep their changes over a file system that is read-only. Unless its inode numbers are
/// those of one file system, a new file may have that of the old one.
TEST_F(RestoreFaults, AnOverlayIsRestoredIfItsInodesAreKnownApart) {
  damage();
  const std::string layer = root() + "/layer";
  const std::string layers =
      "lowerdir=" + config_dir() + ",upperdir=" + layer + "/changes,workdir=" + layer;
  ASSERT_EQ(mkdir(layer.c_str(), 0700), 0);
  ASSERT_EQ(mount("tmpfs", layer.c_str(), "tmpfs", 0, nullptr), 0);
  for (const std::string option : {"/off,xino=off", "/on,xino=on"}) {
    ASSERT_EQ(shell("cd " + layer + " && rm -rf changes && mkdir -p changes off on"), 0);
    const std::string data = layers + option;
    ASSERT_EQ(mount("overlay", config_dir().c_str(), "overlay", 0, data.c_str()), 0) << data;
    before_ = everything(true);
    const cs::Error error = refused(with_check([] { return false; }));
    EXPECT_EQ(everything(true), before_);
    if (option == "/on,xino=on") {
      EXPECT_EQ(error.aftermath, Aftermath::put_back);
      restored();
      EXPECT_EQ(everything(), saved_);
    } else {
      EXPECT_NE(error.text.find("xino=on"), std::string::npos) << shown(error);
      EXPECT_EQ(error.aftermath, Aftermath::untouched);
      shell("cd " + config_dir() + " && rm user/gateway.conf");
      EXPECT_EQ(refused(without_keeping()).text, error.text) << "for a file that is only created";
      EXPECT_EQ(staging_directories(), Texts());
    }
    EXPECT_EQ(umount(config_dir().c_str()), 0);
  }
  EXPECT_EQ(umount(layer.c_str()), 0);
}

TEST_F(RestoreFaults, TheModeOfADirectoryIsNotSetWhereItCouldNotBeTakenBack) {
  const std::string layer = root() + "/layer";
  const std::string layers =
      "lowerdir=" + config_dir() + ",upperdir=" + layer + "/up,workdir=" + layer + "/work,xino=off";
  ASSERT_EQ(mkdir(layer.c_str(), 0700), 0);
  ASSERT_EQ(mount("tmpfs", layer.c_str(), "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(shell("cd " + layer + " && mkdir up work"), 0);
  shell("rm " + config("station") + " && mkdir -m 750 " + config("station"));
  saved("weekly", overwrite());
  const struct {
    std::string type, directory, data, text;
  } cases[] = {{"tmpfs", config("station"), "mode=700", "another file system is mounted here"},
               {"overlay", config_dir(), layers, "inode numbers of their own"}};
  for (const auto& c : cases) {
    ASSERT_EQ(mount(c.type.c_str(), c.directory.c_str(), c.type.c_str(), 0, c.data.c_str()), 0);
    shell("chmod 700 " + config("station"));
    const cs::Error error = refused(without_keeping());
    EXPECT_NE(error.text.find(c.text), std::string::npos) << shown(error);
    EXPECT_EQ(error.aftermath, Aftermath::untouched);
    struct stat status = {};
    EXPECT_EQ(stat(config("station").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
    EXPECT_EQ(staging_directories(), Texts());
    EXPECT_EQ(umount(c.directory.c_str()), 0);
  }
  EXPECT_EQ(umount(layer.c_str()), 0);
}

TEST_F(RestoreFaults, AFileThatMayNotBeRenamedIsNamed) {
  saved("weekly", overwrite());
  const struct {
    std::string damage, attribute, path, text;
  } cases[] = {
      {"echo x >>", "i", config("user/gateway.conf"), "this is immutable; 'chattr -i' makes it changeable"},
      {"chmod 600", "i", config("user/gateway.conf"), "this is immutable; 'chattr -i' makes it changeable"},
      {"rm", "i", config("user"), "this is immutable; 'chattr -i' makes it changeable"},
      {"echo x >>", "a", config("user/gateway.conf"),
       "this can only be appended to; 'chattr -a' makes it changeable"},
      {"echo x >>", "a", config_dir(), "this can only be appended to; 'chattr -a' makes it changeable"},
  };
  for (const auto& c : cases) {
    const bool is_root = c.path == config_dir();
    shell(c.damage + " " + config(is_root ? "gw1.conf" : "user/gateway.conf"));
    ASSERT_EQ(shell("chattr +" + c.attribute + " " + c.path), 0)
        << "does this file system have attributes?";
    const cs::Error error = refused(without_keeping());
    ASSERT_EQ(shell("chattr -" + c.attribute + " " + c.path), 0);
    EXPECT_EQ(error.path, c.path);
    EXPECT_EQ(error.text, c.text);
    EXPECT_EQ(error.aftermath, Aftermath::untouched);
    EXPECT_EQ(staging_directories(), Texts());
    EXPECT_TRUE(cs::restore({"weekly"}, without_keeping()));
  }
}

void make_socket(const std::string& path) {
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(descriptor);
}

TEST_F(RestoreFaults, ASocketInThePlaceOfAFileIsNamed) {
  for (const std::string below : {"", "/deep/in it"}) {
    shell("rm -rf " + config("gw1.conf"));
    if (!below.empty()) shell("mkdir -p " + config("gw1.conf/deep"));
    make_socket(config("gw1.conf") + below);
    const cs::Error error = refused(without_keeping());
    EXPECT_EQ(error.path, config("gw1.conf") + below);
    EXPECT_EQ(error.text, "a socket is in the place of a file of the snapshot; delete it first");
    EXPECT_EQ(error.aftermath, Aftermath::untouched);
    const auto plan = cs::plan({"weekly"});
    EXPECT_EQ(plan ? "" : plan.error().path, config("gw1.conf") + below);
  }
  shell("rm -r " + config("gw1.conf"));
}

/// The directory cannot go, and the restore does not promise it.
TEST_F(RestoreFaults, ADirectoryWithASocketStays) {
  shell("mkdir " + config("gw9") + " && echo x > " + config("gw9/file"));
  make_socket(config("gw9/socket"));
  const auto plan = cs::restore({"weekly"}, exactly());
  ASSERT_TRUE(plan) << plan.error().text;
  EXPECT_FALSE(exists(config("gw9/file")));
  EXPECT_TRUE(exists(config("gw9/socket")));
  EXPECT_TRUE(planned(exactly()).empty());
}

/// The restore has stored the present configuration before it failed. A file that no snapshot can hold
/// makes each attempt store it anew.
TEST_F(RestoreFaults, FailedRestoresLeaveTheKeptSnapshotsAsTheyWere) {
  for (int day = 0; day < 5; ++day) {
    write_file(config("user/gateway.conf"), "work of day " + std::to_string(day));
    ASSERT_EQ(refused({}).code, Code::ok);
  }
  const Texts kept = stored();
  ASSERT_EQ(kept.size(), 1U + 5U);
  write_file(config("gw\\b"), "x");
  write_file(config("user/gateway.conf"), "damaged");
  cs::RestoreOptions no_waiter;
  no_waiter.confirm_within = std::chrono::seconds(60);
  no_waiter.program = "/bin/true";
  cs::RestoreOptions bad;
  bad.check = [] { return false; };
  for (const cs::RestoreOptions& options : {no_waiter, bad, exactly()}) {
    EXPECT_NE(refused(options).code, Code::ok);
    EXPECT_EQ(stored(), kept);
  }
}

/// It is the only one that has what the check has changed.
TEST_F(RestoreFaults, AFailedRestoreKeepsWhatIsLiveNoMore) {
  cs::RestoreOptions options;
  write_file(config("user/gateway.conf"), "damaged");
  write_file(config("gw9"), "of before");
  options.check = [this] {
    write_file(config("gw9"), "of the check");
    return false;
  };
  EXPECT_EQ(refused(options).aftermath, Aftermath::put_back);
  const Texts kept = stored();
  ASSERT_GE(kept.size(), 2U);
  EXPECT_EQ(content(kept[1], config("gw9")), "of before");
}

/// So is one that fails while some files are the new ones.
TEST_F(RestoreFaults, AMixtureLeavesTheKeptSnapshot) {
  write_file(config("user/gateway.conf"), "damaged");
  cs::RestoreOptions options;
  options.check = [this] {
    replace_configuration();
    return false;
  };
  EXPECT_EQ(refused(options).aftermath, Aftermath::mixed);
  bring_it_back();
  EXPECT_EQ(stored().size(), 2U);
  ASSERT_TRUE(cs::recover());
}

/// As old container runtimes do.
bool refuse_the_newer_call_for_access() {
  sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_faccessat2, 0, 1),
                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog filter = {sizeof code / sizeof *code, code};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST_F(RestoreFaults, ARuntimeThatRefusesTheNewerCallForAccess) {
  damage();
  const pid_t child = fork();
  if (child == 0) {
    const bool is_restored =
        refuse_the_newer_call_for_access() && refused(without_keeping()).code == Code::ok;
    shell("rm " + config("user/config.idx") + " " + database());
    const auto later = cs::save({"later"});
    const Texts half = {config("user/config.db")};
    _exit(is_restored && later && later->missing == half ? 0 : 1);
  }
  int status = 1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

/// In a child, which cannot get the rights back.
TEST_F(RestoreFaults, WithoutTheRightsOfRootNoOtherGroupGetsToRead) {
  constexpr uid_t kNobody = 65534;
  constexpr gid_t kUsers = 100;
  constexpr gid_t kGames = 60;
  constexpr gid_t kForeign = 61;
  const struct {
    gid_t recorded;
    const char* expected;
  } cases[] = {{kGames, "640 60"}, {kForeign, "600 100"}, {kUsers, "640 100"}};
  for (const auto& c : cases) {
    const std::string file = config("user/gateway.conf");
    shell("chown -R 65534:100 " + root() + " && chown 65534:" + std::to_string(c.recorded) + " " + file +
          " && chmod 640 " + file);
    saved("weekly", overwrite());
    write_file(file, "damaged\n");
    shell("chown -R 65534:100 " + root() + " " + etc_dir());
    const pid_t child = fork();
    if (child == 0) {
      // A tight one does not matter.
      umask(0777);
      const bool is_user = setgroups(1, &kGames) == 0 && setgid(kUsers) == 0 && setuid(kNobody) == 0;
      const bool is_restored = is_user && refused(without_keeping()).code == Code::ok;
      const auto again = cs::restore({"weekly"}, without_keeping());
      const bool is_settled = again && again->outcome == cs::Restored::Outcome::unchanged;
      // What the restore gave it comes back.
      const bool is_changed = chmod(file.c_str(), 0600) == 0 && chown(file.c_str(), kNobody, kUsers) == 0;
      const bool is_back = is_changed && refused(without_keeping()).code == Code::ok;
      _exit(is_restored && is_settled && is_back ? 0 : 1);
    }
    int status = 1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << c.recorded;
    shell("stat -c '%a %g' " + file + " >" + root() + "/stat");
    EXPECT_EQ(read_file(root() + "/stat"), c.expected + std::string("\n"));
  }
}

}  // namespace
