#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <ctime>
#include <thread>

#include "snapshots/dated_name.h"
#include "snapshots/descriptor.h"
#include "snapshots/keep.h"
#include "snapshots/lock.h"
#include "snapshots/saving.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;

class Keep : public Saving {
 protected:
  static Snapshot row(const std::string& name, ConfSave::int64 version = kCurrent) {
    Query query;
    query.pattern = name;
    query.version = version;
    const auto found = find(query);
    EXPECT_TRUE(found) << name;
    return found ? *found : Snapshot{};
  }

  /// What keep_configuration() returns: the name, or the error as a text.
  std::string kept(const Snapshot& loading = {}) {
    const auto lock = Lock::take("a restore", Deadline(milliseconds(0)));
    EXPECT_TRUE(lock);
    const auto found = keep_configuration(loading, Deadline(milliseconds(5000)), warnings);
    return found ? found->name : shown(found.error());
  }

  void change() { write_file(config("gw1.conf"), "changed " + std::to_string(++changes)); }

  /// Stores a row that holds nothing, and returns it.
  Snapshot put_row(const std::string& name, const std::string& save_time = "1000") {
    put({name, kCurrent, 1, save_time});
    return row(name);
  }

  static std::string dated(int second) { return dated_name("before-load-", second); }

  Texts warnings;
  int changes = 0;
};

TEST_F(Keep, ThePresentConfigurationIsSaved) {
  saved("weekly");
  change();
  host.system_log.clear();
  const std::string name = kept(row("weekly"));
  EXPECT_EQ(host.system_log.at(0).second.find("confsave: action=save result=ok snapshot=" + name), 0U);
  EXPECT_TRUE(is_dated_name("before-load-", name)) << name;
  EXPECT_EQ(name.size(), std::string("before-load-2026-01-02-03-04-05").size());
  EXPECT_EQ(stored(), (Texts{"weekly", name}));
  EXPECT_TRUE(is_live(name));
  EXPECT_EQ(row(name).config.type, ConfSave::conf_full);
  EXPECT_EQ(row(name).comment, "before 'weekly' was loaded");
  EXPECT_FALSE(row(name).pinned);
  EXPECT_EQ(verify({name})->state, Verdict::State::intact);
  EXPECT_EQ(warnings, Texts());
}

TEST_F(Keep, AnEqualSnapshotIsEnough) {
  saved("weekly");
  EXPECT_EQ(kept(put_row("other")), "weekly");
  change();
  const std::string name = kept(row("weekly"));
  EXPECT_EQ(kept(row("weekly")), name);
  EXPECT_EQ(stored(), (Texts{"weekly", "other", name}));
}

TEST_F(Keep, WhatIsNoCopyDoesNotCount) {
  // The snapshot that is loaded: a restore is about to happen, so its archives differ from its manifest.
  saved("weekly");
  EXPECT_NE(kept(row("weekly")), "weekly");
  const Database storage(database());
  storage.run("delete from Config where name <> 'weekly'");
  for (const char* sql : {"update Config set type = 2", "update Config set version = 0",
                          "update Config set save_time = save_time - 1"}) {
    // The save sweeps a manifest that belongs to no row.
    const std::string notes = read_file(notes_file());
    storage.run("begin");
    storage.run("create temp table before as select * from Config");
    storage.run(sql);
    storage.run("commit");
    EXPECT_NE(kept(), "weekly") << sql;
    storage.run("delete from Config");
    storage.run("insert into Config select * from before");
    storage.run("drop table before");
    write_file(notes_file(), notes);
    EXPECT_EQ(kept(), "weekly") << sql;
  }
  shell("rm " + notes_file());
  EXPECT_NE(kept(), "weekly");
}

/// The live files are about to go: a list of files that says that a snapshot has them is not enough.
TEST_F(Keep, ADamagedCopyIsNotEnough) {
  saved("good");
  change();
  saved("now");
  Database(database()).run("update Config set keybase = zeroblob(length(keybase)) where name = 'now'");
  const std::string name = kept(row("good"));
  EXPECT_TRUE(is_dated_name("before-load-", name)) << name;
  EXPECT_TRUE(is_live(name));
}

/// A change through a mapping can leave size and times as they were.
TEST_F(Keep, WhatChangedUnseenIsKept) {
  saved("good");
  change();
  write_file(config("hub/key"), std::string(4096, 'a'));
  const Descriptor file(open(config("hub/key").c_str(), O_RDWR | O_CLOEXEC));
  void* const mapped = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  EXPECT_NE(mapped, MAP_FAILED);
  auto* page = static_cast<char*>(mapped);
  page[0] = 'b';
  // From then on the times of the file say that it is as it was.
  std::this_thread::sleep_for(milliseconds(2500));
  saved("now");
  page[0] = 'c';
  const std::string name = kept(row("good"));
  EXPECT_TRUE(is_live(name)) << name;
  munmap(mapped, 4096);
}

TEST_F(Keep, OnlyTheNewestAreCompared) {
  saved("oldest");
  for (int i = 0; i < 4; ++i) {
    change();
    saved("newer-" + std::to_string(i));
  }
  saved("part", of_type(ConfSave::conf_part));
  shell("cp -p " + config("gw1.conf") + " " + root() + "/last");
  ConfSave::load("oldest", nullptr, 0, true);
  EXPECT_EQ(kept(), "oldest");
  shell("cp -p " + root() + "/last " + config("gw1.conf"));
  EXPECT_EQ(kept(), "newer-3");
  change();
  saved("newest");
  ConfSave::load("oldest", nullptr, 0, true);
  EXPECT_NE(kept(), "oldest");
}

TEST_F(Keep, ANameThatIsTakenGetsANumber) {
  const std::time_t now = std::time(nullptr);
  for (int i = 0; i < 60; ++i) {
    put({dated_name("before-load-", now + i), 0});
    put({dated_name("before-load-", now + i) + "-1", kCurrent});
  }
  const std::string name = kept();
  EXPECT_EQ(name.substr(name.size() - 2), "-2");
  EXPECT_TRUE(is_dated_name("before-load-", name));
  EXPECT_TRUE(is_live(name));
  EXPECT_EQ(stored().size(), 121U);
}

TEST_F(Keep, WithoutFilesThereIsNothingToSave) {
  empty_directory(config_dir());
  empty_directory(etc_dir());
  EXPECT_EQ(kept(), "");
  EXPECT_EQ(stored(), Texts());
}

TEST_F(Keep, FilesThatAreLeftOutAreNamed) {
  saved("weekly");
  shell("rm " + config("user/config.idx") + " " + config("station"));
  const std::string name = kept();
  EXPECT_EQ(warnings, Texts{config("user/config.db") + ": the file is not in '" + name + "'"});
  EXPECT_NE(kept(), name);
  EXPECT_EQ(warnings.size(), 2U);
}

/// A restore would delete the only copy.
TEST_F(Keep, AFileThatCannotBeKeptIsNotDeleted) {
  RestoreOptions exactly;
  exactly.exact = true;
  const struct {
    std::string commands;
    std::string path;
    RestoreOptions options;
  } cases[] = {
      {"rm user/config.idx; echo other >user/config.db", "user/config.db", {}},
      {"echo x >'gw\\b'", "gw\\b", exactly},
      {"echo other >user/config.db; find . -type f ! -name config.db -delete; rm -f " + etc_dir() + "*",
       "user/config.db", exactly},
  };
  saved("good");
  for (const auto& c : cases) {
    shell("cd " + config_dir() + " && " + c.commands);
    const std::string live = read_file(config(c.path));
    const auto refused = restore({"good"}, c.options);
    ASSERT_FALSE(refused) << c.commands;
    EXPECT_EQ(shown(refused.error()), shown({Code::incomplete, 0, config(c.path),
                                             "a snapshot of the present configuration cannot hold this "
                                             "file, and the restore would delete it"}));
    EXPECT_EQ(refused.error().aftermath, Aftermath::untouched);
    EXPECT_EQ(read_file(config(c.path)), live);
    RestoreOptions options = c.options;
    options.keep = false;
    EXPECT_TRUE(restore({"good"}, options)) << c.commands;
  }
}

/// One that stays is only named.
TEST_F(Keep, AFileThatCannotBeKeptMayStay) {
  saved("good");
  write_file(config("gw\\b"), "x");
  change();
  const auto done = restore({"good"});
  ASSERT_TRUE(done);
  EXPECT_EQ(done->warnings, Texts{config("gw\\b") + ": the file is not in '" + done->kept + "'"});
  EXPECT_EQ(read_file(config("gw\\b")), "x");
}

TEST_F(Keep, WhyTheConfigurationCannotBeSavedIsReturned) {
  saved("weekly");
  change();
  {
    const LockHolder holder(database(), 60000);
    const auto name = keep_configuration({}, Deadline(milliseconds(50)), warnings);
    ASSERT_FALSE(name);
    EXPECT_EQ(name.error().code, Code::busy);
  }
  shell("cd " + config_dir() + " && rm gw1.conf && mkfifo gw1.conf");
  const auto name = keep_configuration({}, Deadline(milliseconds(5000)), warnings);
  ASSERT_FALSE(name);
  EXPECT_EQ(name.error().code, Code::unsafe);
  EXPECT_EQ(name.error().text,
            "the present configuration cannot be kept as a snapshot: this is a device or a FIFO");
  EXPECT_EQ(stored(), Texts{"weekly"});
}

/// "Damaged" would be said of the snapshot that is restored.
TEST_F(Keep, AnArchiveOfThePresentConfigurationIsNoDamagedSnapshot) {
  saved("weekly");
  change();
  host.on_command = [this](const std::string& command) -> std::optional<int> {
    return shell(command + " && truncate -s -5 " + temp_dir() + "/*");
  };
  EXPECT_EQ(kept(), shown({Code::failed, 0, config_dir(),
                           "the present configuration cannot be kept as a snapshot: the archive ends in "
                           "the middle"}));
  EXPECT_EQ(stored(), Texts{"weekly"});
}

TEST_F(Keep, TheNewestFiveStay) {
  // A clock that goes back does not make the newest the oldest.
  Texts expected;
  for (int i = 0; i < 9; ++i) {
    const std::string name = dated(1000 - i) + (i % 2 == 0 ? "" : "-12");
    put_row(name, std::to_string(1000 - i));
    if (i == 0 || i == 1 || i >= 3) expected.push_back(name);
  }
  // What is pinned does not count, either.
  for (const std::string& name : {expected.front(), expected.back()}) {
    ASSERT_EQ(pin({name}, true).code, Code::ok);
  }
  const Texts others{"before-load",
                     "before-load-",
                     dated(0) + "-",
                     dated(0) + "-x",
                     dated(0) + "x",
                     "xbefore-load-2026-01-02-03-04-05",
                     "before-load-2026-01-02-03-04-5",
                     "autosave-2026-01-02-03-04-05"};
  for (const std::string& name : others) put_row(name);
  expected.insert(expected.end(), others.begin(), others.end());
  remove_old_kept(row(expected[1]), "", Deadline(milliseconds(5000)), warnings);
  EXPECT_EQ(stored(), expected);
  EXPECT_EQ(warnings, Texts());
}

TEST_F(Keep, TheSnapshotThatHoldsThePresentConfigurationStays) {
  saved(dated(0));
  // Of no version: they count as kept, and are not compared.
  for (int i = 1; i <= 7; ++i) put({dated(i), 0});
  const std::string name = kept();
  ASSERT_EQ(name, dated(0));
  host.system_log.clear();
  remove_old_kept({}, name, Deadline(milliseconds(5000)), warnings);
  EXPECT_EQ(stored(), (Texts{dated(0), dated(4), dated(5), dated(6), dated(7)}));
  ASSERT_EQ(host.system_log.size(), 3U);
  EXPECT_EQ(host.system_log[2].second.find("confsave: action=prune result=ok snapshot=" + dated(1)), 0U);
  EXPECT_TRUE(is_live(dated(0)));
  EXPECT_EQ(warnings, Texts());
}

TEST_F(Keep, ARestoreThatKeepsNothingRemovesNothing) {
  saved("weekly");
  for (int i = 0; i < 7; ++i) put_row(dated(i));
  for (const bool keep : {false, true}) {
    change();
    RestoreOptions options;
    options.keep = keep;
    const auto restored = restore({"weekly"}, options);
    ASSERT_TRUE(restored) << restored.error().text;
    EXPECT_EQ(stored().size(), keep ? 1U + 5U : 1U + 7U);
  }
  for (int i = 10; i < 15; ++i) put_row(dated(i));
  RestoreOptions elsewhere;
  elsewhere.target = root() + "/elsewhere";
  shell("mkdir " + elsewhere.target);
  ASSERT_TRUE(restore({"weekly"}, elsewhere));
  EXPECT_EQ(stored().size(), 1U + 5U + 5U);
}

TEST_F(Keep, WhatIsNotRemovedIsAWarning) {
  for (int i = 0; i < 6; ++i) put_row(dated(i));
  {
    const LockHolder holder(database(), 60000);
    remove_old_kept({}, "", Deadline(milliseconds(50)), warnings);
  }
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_EQ(warnings[0].find("old snapshots were not removed: " + database()), 0U) << warnings[0];
  write_file(notes_file(), std::string(5000, 'x'));
  remove_old_kept({}, "", Deadline(milliseconds(5000)), warnings);
  ASSERT_EQ(warnings.size(), 2U);
  EXPECT_EQ(warnings[1].find("'" + dated(0) + "' was not removed: " + notes_file()), 0U) << warnings[1];
  EXPECT_EQ(stored().size(), 6U);
}

}  // namespace
