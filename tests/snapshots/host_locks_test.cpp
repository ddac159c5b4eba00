// A host keeps its locks on the configuration database: to the kernel those of SQLite belong to the
// process, which loses them where it closes any descriptor of the file.

#include <fcntl.h>
#include <unistd.h>

#include <functional>

#include "snapshots/descriptor.h"
#include "snapshots/restoring.h"

namespace {

using namespace test;
using cs::Live;

class HostLocks : public Restoring {
 protected:
  HostLocks() {
    shell("rm -f " + config("user/config.*"));
    write_file(config("user/config.idx"), "index\n");
    Database(file()).run("create table t (k)");
    saved("weekly", overwrite());
    Database(file()).run("insert into t values (1)");
  }

  std::string file() const { return config("user/config.db"); }

  /// The host is in a transaction during the call.
  void expect_kept(const std::string& name, const std::function<bool()>& call) const {
    const Database connection(file());
    connection.run("begin immediate");
    EXPECT_FALSE(lock_is_free(file())) << name;
    EXPECT_TRUE(call()) << name;
    EXPECT_FALSE(lock_is_free(file())) << name;
    connection.run("insert into t values (2)");
    connection.run("commit");
    EXPECT_TRUE(lock_is_free(file())) << name;
  }

  void expect_kept_by_reading() const {
    expect_kept("compare", [] { return bool{cs::compare({"weekly"}, Live())}; });
    expect_kept("plan", [] { return bool{cs::plan({"weekly"})}; });
    expect_kept("exact plan", [] { return bool{cs::plan({"weekly"}, exactly())}; });
  }

  void forget_manifests() const { ASSERT_EQ(shell("rm " + notes_file()), 0); }
};

TEST_F(HostLocks, AreKeptByReading) { expect_kept_by_reading(); }

TEST_F(HostLocks, AreKeptByReadingWithoutAManifest) {
  forget_manifests();
  expect_kept_by_reading();
  // A longer file is compared to its end only if it is equal.
  saved("weekly", overwrite());
  forget_manifests();
  expect_kept("equal", [] { return is_live("weekly"); });
}

TEST_F(HostLocks, AreKeptBySaving) {
  expect_kept("save", [] { return bool{cs::save({"daily"})}; });
  expect_kept("overwrite", [] { return bool{cs::save({"weekly"}, overwrite())}; });
  expect_kept("if changed", [] { return bool{cs::save({"later"}, if_changed())}; });
  forget_manifests();
  expect_kept("if changed, without notes", [] { return bool{cs::save({"again"}, if_changed())}; });
}

/// The lock is on the file of before, which has no name any more.
TEST_F(HostLocks, AreKeptByARestore) {
  const auto before = cs::Descriptor(open(file().c_str(), O_RDWR | O_CLOEXEC));
  const auto is_locked = [&before] {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    return fcntl(before.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
  };
  const Database connection(file());
  EXPECT_FALSE(is_locked());
  connection.run("begin immediate");
  EXPECT_TRUE(is_locked());
  const auto result = cs::restore({"weekly"});
  EXPECT_TRUE(result) << shown(result ? cs::Error{} : result.error());
  EXPECT_TRUE(is_locked());
  connection.run("rollback");
  EXPECT_EQ(Database(file()).value("select count(*) from t"), "0");
}

/// A process that finds no lock when it closes the database deletes the write-ahead log of the host.
TEST_F(HostLocks, AreKeptInWriteAheadLogging) {
  const Database connection(file());
  connection.run("pragma journal_mode=wal");
  connection.run("insert into t values (2)");
  const auto expect_log = [this](const char* name) {
    EXPECT_TRUE(lock_is_free(file())) << name;
    EXPECT_TRUE(exists(file() + "-wal")) << name;
  };
  expect_log("before");
  EXPECT_TRUE(cs::compare({"weekly"}, Live()));
  expect_log("compare");
  EXPECT_TRUE(cs::save({"daily"}));
  expect_log("save");
  forget_manifests();
  EXPECT_TRUE(cs::compare({"weekly"}, Live()));
  expect_log("compare without a manifest");
  connection.run("insert into t values (3)");
  EXPECT_EQ(shell("test $(sqlite3 " + file() + " 'select count(*) from t') = 3"), 0);
}

}  // namespace
