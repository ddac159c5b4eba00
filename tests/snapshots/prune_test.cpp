// Which snapshots prune() deletes.

#include <algorithm>
#include <random>
#include <set>

#include "snapshots/lock.h"
#include "snapshots/restoring.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

constexpr std::int64_t kDay = 86400;

/// A row that is about to be put into the storage.
struct Spec {
  std::string name;
  std::int64_t time = 0;
  std::int64_t version = ConfSave::CURRENT_VERSION;
  bool is_whole = true;
  bool is_pinned = false;
};

class PruneTest : public Saving {
 protected:
  PruneTest() {
    saved("source");
    Database(database()).run("create table Source as select keybase, etc from Config");
  }
  ~PruneTest() override { expect_nothing_held(); }

  void clear() const { Database(database()).run("delete from Config"); }

  void add(const Spec& row) const {
    Database(database())
        .run("insert into Config (name, version, keybase, etc, type, save_time) select '" + row.name +
             "', " + std::to_string(row.version) + ", " + (row.is_whole ? "keybase" : "x'1f8b'") +
             ", etc, 1, " + std::to_string(row.time) + " from Source");
    if (!row.is_pinned) return;
    ASSERT_EQ(pin({row.name, row.version}, true).code, Code::ok);
  }

  static std::string autosave_name(int number) {
    char name[80];
    std::snprintf(name, sizeof name, "autosave-2026-01-01-00-00-%02d", number);
    return name;
  }

  /// So many autosaves, a day apart, the oldest first.
  void add_autosaves(int count) const {
    for (int i = 1; i <= count; ++i) add({autosave_name(i), i * kDay});
  }

  static PruneOptions keeping(std::int64_t keep) {
    PruneOptions options;
    options.keep = keep;
    return options;
  }

  static Pruned pruned(const PruneOptions& options) {
    const auto result = prune(options);
    EXPECT_TRUE(result) << shown(result ? Error{} : result.error());
    return result ? *result : Pruned{};
  }

  static Code refused(const PruneOptions& options) {
    const auto result = prune(options);
    return result ? Code::ok : result.error().code;
  }

  static Texts names(const std::vector<Victim>& victims) {
    Texts result;
    for (const Victim& victim : victims) {
      result.push_back(victim.snapshot.config.name + "@" + std::to_string(victim.snapshot.config.vers));
    }
    return result;
  }

  /// Without the versions.
  static Texts deleted(const PruneOptions& options) {
    Texts result;
    for (const Victim& victim : pruned(options).deleted) result.push_back(victim.snapshot.config.name);
    return result;
  }
};

TEST_F(PruneTest, TheNewestStay) {
  add_autosaves(5);
  const Pruned done = pruned(keeping(3));
  EXPECT_EQ(done.kept, 3);
  ASSERT_EQ(done.deleted.size(), 2U);
  EXPECT_EQ(done.deleted[0].snapshot.config.name, autosave_name(1));
  EXPECT_EQ(done.deleted[1].snapshot.config.name, autosave_name(2));
  EXPECT_EQ(done.deleted[0].reason, "not among the newest 3");
  EXPECT_EQ(stored(), (Texts{"source", autosave_name(3), autosave_name(4), autosave_name(5)}));
  EXPECT_EQ(deleted(keeping(3)), Texts());
}

TEST_F(PruneTest, TimeCountsAndThenTheId) {
  add({autosave_name(1), 300});
  add({autosave_name(2), 100});
  add({autosave_name(3), 300});
  add({autosave_name(4), 200});
  EXPECT_EQ(deleted(keeping(2)), (Texts{autosave_name(2), autosave_name(4)}));
  EXPECT_EQ(deleted(keeping(1)), Texts{autosave_name(1)});
}

TEST_F(PruneTest, OnlyNamesOfExactlyTheFormAreAutosaves) {
  const Texts others{"autosave",
                     "autosave-manual",
                     "autosave-2026-01-01-00-00",
                     "autosave-2026-01-01-00-00-00-",
                     "autosave-2026-01-01-00-00-00-1x",
                     "Autosave-2026-01-01-00-00-00",
                     "corlu-config"};
  for (const std::string& name : others) {
    add({name, 1});
    EXPECT_FALSE(is_autosave(name)) << name;
  }
  add({"autosave-2026-01-01-00-00-00-12", 2});
  EXPECT_TRUE(is_autosave("autosave-2026-01-01-00-00-00-12"));
  add({autosave_name(1), 3});
  EXPECT_EQ(deleted(keeping(1)), Texts{"autosave-2026-01-01-00-00-00-12"});
}

TEST_F(PruneTest, APatternTakesThePlaceOfTheForm) {
  add_autosaves(2);
  add({"daily-1", 1});
  add({"daily-2", 2});
  PruneOptions options = keeping(1);
  options.pattern = "daily-*";
  EXPECT_EQ(deleted(options), Texts{"daily-1"});
  add({"corlu-config", 3});
  options.pattern = "*";
  EXPECT_EQ(deleted(options), (Texts{"daily-2", autosave_name(1), autosave_name(2)}));
  EXPECT_EQ(stored(), (Texts{"source", "corlu-config"}));
}

TEST_F(PruneTest, OnlyWhatIsOldEnoughGoes) {
  const std::int64_t now = std::time(nullptr);
  add({autosave_name(1), now - 40 * kDay});
  add({autosave_name(2), now - 20 * kDay});
  add({autosave_name(3), now + 20 * kDay});
  PruneOptions options = keeping(1);
  options.older_than = std::chrono::hours(30 * 24);
  options.dry_run = true;
  const Pruned planned = pruned(options);
  EXPECT_EQ(planned.kept, 2);
  ASSERT_EQ(names(planned.deleted).size(), 1U);
  EXPECT_EQ(planned.deleted[0].snapshot.config.name, autosave_name(1));
  EXPECT_EQ(planned.deleted[0].reason, "not among the newest 1, and old enough");
  options.older_than = std::chrono::hours(0);
  EXPECT_EQ(deleted(options), (Texts{autosave_name(1), autosave_name(2)}));
  options.older_than = std::chrono::hours::max();
  EXPECT_EQ(deleted(options), Texts());
}

TEST_F(PruneTest, PinnedOnesDoNotCount) {
  add_autosaves(4);
  ASSERT_EQ(pin({autosave_name(1)}, true).code, Code::ok);
  ASSERT_EQ(pin({autosave_name(4)}, true).code, Code::ok);
  const Pruned done = pruned(keeping(1));
  EXPECT_EQ(done.kept, 1);
  ASSERT_EQ(done.deleted.size(), 1U);
  EXPECT_EQ(done.deleted[0].snapshot.config.name, autosave_name(2));
}

TEST_F(PruneTest, NotesThatCannotBeReadMayHoldPins) {
  add_autosaves(3);
  write_file(notes_file(), std::string(5000, 'x'));
  PruneOptions options = keeping(1);
  for (const bool dry_run : {true, false}) {
    options.dry_run = dry_run;
    EXPECT_EQ(refused(options), Code::no_storage);
  }
  EXPECT_EQ(stored().size(), 4U);
}

TEST_F(PruneTest, TheLastOneThatCanBeRestoredStays) {
  clear();
  add({autosave_name(1), 100, ConfSave::CURRENT_VERSION, true});
  add({autosave_name(2), 200, ConfSave::CURRENT_VERSION, true});
  add({autosave_name(3), 300, ConfSave::CURRENT_VERSION, false});
  add({"corlu-config", 400});
  const Pruned done = pruned(keeping(1));
  EXPECT_EQ(done.kept, 2);
  EXPECT_EQ(stored(), (Texts{autosave_name(2), autosave_name(3), "corlu-config"}));
  // Another one that is whole will do.
  add({"weekly", 1});
  EXPECT_EQ(deleted(keeping(1)), Texts{autosave_name(2)});
}

TEST_F(PruneTest, WithoutAnyThatCanBeRestoredTheRuleHolds) {
  clear();
  for (const int number : {1, 2}) add({autosave_name(number), number, ConfSave::CURRENT_VERSION, false});
  EXPECT_EQ(deleted(keeping(1)), Texts{autosave_name(1)});
}

TEST_F(PruneTest, OneThatCannotBeDeletedDoesNotStopTheOthers) {
  add_autosaves(4);
  // A foreign table may have two rows of one id.
  const Database storage(database());
  storage.run("create table Copy as select * from Config");
  storage.run("drop table Config");
  storage.run("alter table Copy rename to Config");
  storage.run("insert into Config select * from Config where name = '" + autosave_name(2) + "'");
  const Pruned done = pruned(keeping(1));
  EXPECT_EQ(names(done.deleted).size(), 2U);
  EXPECT_EQ(done.deleted[0].snapshot.config.name, autosave_name(1));
  EXPECT_EQ(done.deleted[1].snapshot.config.name, autosave_name(3));
  ASSERT_EQ(done.undeleted.size(), 2U);
  EXPECT_EQ(done.undeleted[0].error.code, Code::no_storage);
  EXPECT_EQ(done.undeleted[0].victim.snapshot.config.name, autosave_name(2));
}

TEST_F(PruneTest, WhatIsWrongIsRefused) {
  add_autosaves(3);
  for (const std::int64_t keep : {0, -1}) EXPECT_EQ(refused(keeping(keep)), Code::bad_argument);
  PruneOptions options = keeping(1);
  options.older_than = std::chrono::hours(-1);
  EXPECT_EQ(refused(options), Code::bad_argument);
  options = keeping(1);
  options.pattern = "";
  EXPECT_EQ(refused(options), Code::bad_argument);
  EXPECT_EQ(stored().size(), 4U);
}

TEST_F(PruneTest, ALockEndsTheWaitOfARunOnly) {
  add_autosaves(3);
  PruneOptions options = keeping(1);
  options.wait = std::chrono::milliseconds(50);
  const auto lock = Lock::take("saving", Deadline(std::chrono::milliseconds(0)));
  ASSERT_TRUE(lock);
  EXPECT_EQ(refused(options), Code::busy);
  options.dry_run = true;
  EXPECT_EQ(deleted(options).size(), 2U);
}

TEST_F(PruneTest, WithoutAStorageThereIsNothingToDelete) {
  shell("rm " + database());
  const Pruned done = pruned(keeping(1));
  EXPECT_EQ(done.kept, 0);
  EXPECT_EQ(names(done.deleted), Texts());
  EXPECT_FALSE(exists(database()));
}

/// Draws storages, and knows by itself what may go.
class PruneProperty : public PruneTest {
 protected:
  std::int64_t below(std::int64_t end) {
    return std::uniform_int_distribution<std::int64_t>(0, end - 1)(source_);
  }

  std::string draw_name() {
    switch (below(4)) {
      case 0:
        return "weekly-" + std::to_string(below(4));
      case 1:
        return "autosave-manual-" + std::to_string(below(3));
      default:
        return autosave_name(static_cast<int>(below(9)));
    }
  }

  /// The clock steps: times repeat, run backwards, are before 1970 and in the future.
  std::int64_t draw_time() {
    const std::int64_t now = std::time(nullptr);
    const std::int64_t times[] = {0, -5, 1000, now, now - 10 * kDay, now - 50 * kDay, now + 10 * kDay};
    return times[below(7)] + below(3);
  }

  void draw_rows() {
    rows_.clear();
    clear();
    std::set<std::pair<std::string, std::int64_t>> taken;
    const std::int64_t count = 1 + below(14);
    // Often only one is whole.
    const std::int64_t only = below(4) == 0 ? -1 : below(count);
    const bool others = below(4) == 0;
    for (std::int64_t i = 0; i < count; ++i) {
      const std::int64_t versions[] = {ConfSave::CURRENT_VERSION, 0, ConfSave::CURRENT_VERSION + 65536};
      Spec row{draw_name(), draw_time(), versions[below(3)], others || i == only, below(6) == 0};
      if (!taken.insert({row.name, row.version}).second) continue;
      add(row);
      rows_.push_back(row);
    }
  }

  PruneOptions draw_options() {
    PruneOptions options = keeping(1 + below(3));
    const char* const patterns[] = {"*", "weekly-*", "autosave-*", "autosave-2026-01-01-00-00-0[1-4]"};
    if (below(2) == 0) options.pattern = patterns[below(4)];
    if (below(3) == 0) options.older_than = std::chrono::hours(24 * 30);
    return options;
  }

  /// A time of today becomes "<now>" in a listing of the test's, but not all at the same moment.
  Rows exact_rows() const {
    return query("select id, name, version, type, printf('%x', save_time), load_time from Config");
  }

  static std::string label(const Spec& row) { return row.name + "@" + std::to_string(row.version); }

  bool matches(const Spec& row, const PruneOptions& options) const {
    if (!options.pattern) return row.name.compare(0, 14, "autosave-2026-") == 0;
    return query("select '" + row.name + "' glob '" + *options.pattern + "'")[0][0] == "1";
  }

  /// What may go if something that is whole stays.
  std::set<std::string> may_go(const PruneOptions& options) const {
    std::vector<Spec> counting;
    // The ids grow with the position.
    for (const Spec& row : rows_) {
      if (matches(row, options) && !row.is_pinned) counting.insert(counting.begin(), row);
    }
    std::stable_sort(counting.begin(), counting.end(),
                     [](const Spec& one, const Spec& other) { return one.time > other.time; });
    std::set<std::string> result;
    const std::int64_t limit = std::time(nullptr) - 30 * kDay;
    for (auto i = static_cast<std::size_t>(options.keep); i < counting.size(); ++i) {
      if (!options.older_than || counting[i].time < limit) result.insert(label(counting[i]));
    }
    return result;
  }

  void expect_one_whole_row_left(const std::set<std::string>& gone, std::size_t spared) const {
    const auto whole = [&](bool all) {
      return std::count_if(rows_.begin(), rows_.end(), [&](const Spec& row) {
        return row.is_whole && (all || gone.count(label(row)) == 0);
      });
    };
    EXPECT_TRUE(whole(true) == 0 || whole(false) >= 1);
    // One is spared only if it is the last.
    EXPECT_TRUE(spared == 0 || whole(false) == 1);
    EXPECT_LE(spared, 1U);
  }

  std::mt19937 source_{20261122};
  std::vector<Spec> rows_;
};

TEST_F(PruneProperty, NothingProtectedGoesAndADryRunSaysWhatARunDoes) {
  std::size_t all_deleted = 0;
  std::size_t all_spared = 0;
  for (int round = 0; round < 50; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    draw_rows();
    PruneOptions options = draw_options();
    const std::set<std::string> allowed = may_go(options);
    const Rows before = exact_rows();
    options.dry_run = true;
    const Pruned planned = pruned(options);
    EXPECT_EQ(exact_rows(), before);
    options.dry_run = false;
    const Pruned done = pruned(options);
    EXPECT_EQ(names(done.deleted), names(planned.deleted));
    EXPECT_EQ(done.kept, planned.kept);
    EXPECT_EQ(exact_rows().size(), before.size() - done.deleted.size());
    const Texts list = names(done.deleted);
    const std::set<std::string> gone(list.begin(), list.end());
    EXPECT_TRUE(std::includes(allowed.begin(), allowed.end(), gone.begin(), gone.end()));
    for (const Spec& row : rows_) {
      EXPECT_EQ(find({row.name, row.version}) ? 0U : 1U, gone.count(label(row))) << label(row);
    }
    expect_one_whole_row_left(gone, allowed.size() - gone.size());
    all_deleted += gone.size();
    all_spared += allowed.size() - gone.size();
  }
  EXPECT_GT(all_deleted, 50U);
  EXPECT_GT(all_spared, 1U);
}

class PruneAndRestore : public Restoring {
 protected:
  static PruneOptions of_everything(bool dry_run) {
    PruneOptions options;
    options.keep = 1;
    options.pattern = "*";
    options.dry_run = dry_run;
    return options;
  }

  static Texts deleted(bool dry_run) {
    Texts names;
    const auto done = prune(of_everything(dry_run));
    EXPECT_TRUE(done) << shown(done ? Error{} : done.error());
    if (!done) return names;
    for (const Victim& victim : done->deleted) names.push_back(victim.snapshot.config.name);
    return names;
  }
};

TEST_F(PruneAndRestore, TheSnapshotOfAPendingRestoreStays) {
  saved("second");
  saved("third");
  write_file(config("gw1.conf"), "changed");
  RestoreOptions options = without_keeping();
  bool called = false;
  options.check = [&] {
    EXPECT_EQ(deleted(true), Texts{"second"});
    EXPECT_EQ(deleted(false), Texts{"second"});
    return called = true;
  };
  EXPECT_TRUE(restore({"weekly"}, options));
  EXPECT_TRUE(called);
  EXPECT_EQ(stored(), (Texts{"weekly", "third"}));
  // It is over.
  EXPECT_EQ(deleted(false), Texts{"weekly"});
}

}  // namespace
