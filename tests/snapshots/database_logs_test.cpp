#include "snapshots/pending.h"

namespace {

using namespace test;
using cs::Code;

/// A configuration database whose logs come and go, as those of a gateway do that is at work.
class DatabaseLogs : public PendingTest {
 protected:
  DatabaseLogs() {
    shell("rm -f " + config("user/config.*"));
    write_file(config("user/config.idx"), "index\n");
    fill("saved", 300);
    saved("weekly", overwrite());
    fill("live", 900);
    saved_ = everything();
    before_ = everything(true);
  }

  std::string file(const std::string& end = "") const { return config("user/config.db" + end); }

  void fill(const std::string& text, int rows) const {
    shell("rm -f " + file() + "*");
    const Database database(file());
    database.run("create table t (k integer primary key, v)");
    database.run("with recursive n (i) as (select 1 union all select i + 1 from n where i < " +
                 std::to_string(rows) + ") insert into t (v) select '" + text +
                 "' || hex(zeroblob(40)) from n");
  }

  /// Its process dies in a transaction, of which the file has a part.
  void die_in_a_transaction(const std::string& mode) const {
    shell("sqlite3 " + file() + " 'pragma journal_mode=" + mode +
          "; pragma cache_size=1; begin; update t set v = \"dead\" || v;' '.shell kill -KILL $PPID' "
          ">/dev/null 2>&1");
  }

  /// How many rows there are of what was filled in.
  std::string rows() const {
    const Database database(file());
    return database.value("pragma integrity_check") + ": " +
           database.value(
               "select group_concat(name) from (select substr(v, 1, 4) || ' ' || count(*) as name "
               "from t group by substr(v, 1, 4))");
  }

  cs::Restored load(const cs::RestoreOptions& options) const {
    const auto result = cs::restore({"weekly"}, options);
    EXPECT_TRUE(result) << shown(result ? cs::Error{} : result.error());
    return result ? *result : cs::Restored{};
  }

  /// Takes away what an undo has set aside. The ends of the names.
  Texts set_aside() const {
    Texts found;
    for (const std::string& directory : staging_directories()) {
      for (const std::string& name : names_in(config(directory)))
        found.push_back(name.substr(name.find('.')));
    }
    shell("rm -r " + config(".confsave-restore-*"));
    return found;
  }
};

TEST_F(DatabaseLogs, ThoseOfADatabaseThatGoesDoNotChangeTheOneThatComesBack) {
  const struct {
    std::string mode;
    Texts logs;
  } cases[] = {{"delete", {".config.db-journal"}}, {"wal", {".config.db-wal"}}};
  for (const auto& c : cases) {
    load(windowed());
    die_in_a_transaction(c.mode);
    ASSERT_TRUE(exists(file(c.logs.back().substr(10)))) << c.mode;
    const cs::Recovery recovery = reverted();
    EXPECT_EQ(everything(true), before_) << c.mode;
    EXPECT_EQ(rows(), "ok: live 900") << c.mode;
    ASSERT_EQ(recovery.warnings.size(), 2U) << c.mode;
    // Those of the save, and what was set aside.
    EXPECT_EQ(recovery.warnings[0].find("'" + recovery.kept + "': " + file(c.logs[0].substr(10)) + ": "),
              0U)
        << recovery.warnings[0];
    EXPECT_NE(recovery.warnings[1].find(c.logs[0] + ": '" + file(c.logs[0].substr(10)) +
                                        "' is not as the restore has left it"),
              std::string::npos)
        << recovery.warnings[1];
    EXPECT_EQ(set_aside(), c.logs);
  }
}

TEST_F(DatabaseLogs, ACheckThatFailsLeavesNone) {
  cs::RestoreOptions options = without_keeping();
  options.check = [this] {
    die_in_a_transaction("delete");
    return false;
  };
  EXPECT_EQ(refused(options).code, Code::check_failed);
  EXPECT_EQ(rows(), "ok: live 900");
  EXPECT_EQ(set_aside(), Texts{".config.db-journal"});
}

/// A gateway may keep its journal for the next transaction.
TEST_F(DatabaseLogs, OneThatHoldsNothingIsNotKept) {
  for (const char* mode : {"truncate", "persist"}) {
    write_file(file("-journal"), "");
    before_ = everything(true);
    load(windowed());
    shell("sqlite3 " + file() + " 'pragma journal_mode=" + mode +
          "; insert into t (v) values (0)' >/dev/null");
    ASSERT_TRUE(exists(file("-journal"))) << mode;
    EXPECT_EQ(reverted().warnings, Texts());
    EXPECT_EQ(everything(true), before_) << mode;
    EXPECT_EQ(rows(), "ok: live 900");
    EXPECT_EQ(staging_directories(), Texts());
  }
}

TEST_F(DatabaseLogs, TheOneOfBeforeComesBackWithItsDatabase) {
  write_file(file("-journal"), std::string(600, '\0'));
  before_ = everything(true);
  load(windowed());
  EXPECT_FALSE(exists(file("-journal")));
  EXPECT_EQ(rows(), "ok: save 300");
  die_in_a_transaction("delete");
  reverted();
  EXPECT_EQ(everything(true), before_);
  EXPECT_EQ(rows(), "ok: live 900");
  EXPECT_EQ(set_aside(), Texts{".config.db-journal"});
}

/// A copy of the file alone has a part of the transaction, and cannot roll it back.
TEST_F(DatabaseLogs, AHotJournalIsNotLost) {
  die_in_a_transaction("delete");
  before_ = everything(true);
  cs::RestoreOptions pending = windowed();
  for (const cs::RestoreOptions& options : {cs::RestoreOptions(), without_keeping(), pending}) {
    const cs::Error error = refused(options);
    EXPECT_EQ(error.path, file("-journal"));
    EXPECT_EQ(error.text.find("a transaction has not ended"), 0U);
    EXPECT_EQ(error.aftermath, cs::Aftermath::untouched);
    EXPECT_EQ(everything(true), before_);
  }
  EXPECT_EQ(rows(), "ok: live 900");
  load({});
  EXPECT_EQ(rows(), "ok: save 300");
}

TEST_F(DatabaseLogs, WithoutChangesTheyGoWithTheirDatabase) {
  write_file(file("-wal"), "");
  write_file(file("-shm"), "index");
  const Texts plan = planned();
  for (const char* end : {"-wal", "-shm"}) {
    EXPECT_EQ(std::count(plan.begin(), plan.end(), "-.... <config>/user/config.db" + std::string(end)), 1);
  }
  restored();
  EXPECT_FALSE(exists(file("-wal")) || exists(file("-shm")));
}

/// A restore would lose them: neither this snapshot nor one that is kept has them.
TEST_F(DatabaseLogs, ThoseWithChangesAreNotLost) {
  write_file(file("-wal"), "changes");
  const cs::Error error = refused();
  EXPECT_EQ(error.path, file("-wal"));
  EXPECT_EQ(error.text.find("the database may have changes in this file that no snapshot holds"), 0U);
  EXPECT_EQ(error.aftermath, cs::Aftermath::untouched);
  for (const cs::SaveOptions& options : {overwrite(), if_changed()}) {
    const auto saved = cs::save({"now"}, options);
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->warnings,
              Texts{file("-wal") +
                    ": the database may have changes in this file that the snapshot does not hold"});
  }
  shell("rm " + file("-wal"));
  EXPECT_EQ(everything(true), before_);
}

/// They belong to it, and not to another file of the configuration database.
TEST_F(DatabaseLogs, ThoseOfADatabaseThatStaysStay) {
  load(without_keeping());
  write_file(config("user/config.idx"), "changed\n");
  before_ = everything(true);
  cs::RestoreOptions options = exactly();
  options.keep = false;
  options.confirm_within = 60s;
  options.program = waiter();
  const std::string inode = described(file(), true);
  load(options);
  EXPECT_EQ(described(file(), true), inode);
  die_in_a_transaction("delete");
  EXPECT_EQ(reverted().kept, "");
  EXPECT_TRUE(exists(file("-journal")));
  EXPECT_EQ(rows(), "ok: save 300");
  // That has rolled the transaction back, and set the time of the database.
  load(without_keeping());
  write_file(config("user/config.idx"), "changed\n");
  write_file(file("-wal"), "");
  write_file(file("-shm"), "index");
  restored(exactly());
  EXPECT_TRUE(exists(file("-wal")) && exists(file("-shm")));
}

TEST_F(DatabaseLogs, ASaveSaysThatATransactionHasNotEnded) {
  const auto warnings = [] { return saved("now", overwrite()).warnings; };
  write_file(file("-journal"), std::string(600, '\0'));
  EXPECT_EQ(warnings(), Texts());
  shell("rm " + file("-journal"));
  die_in_a_transaction("delete");
  EXPECT_EQ(warnings(),
            Texts{file("-journal") + ": a transaction has not ended; the snapshot may hold a part of it"});
  EXPECT_EQ(rows(), "ok: live 900");
  EXPECT_EQ(warnings(), Texts());
}

/// The older one may be the only one that holds a whole database.
TEST_F(DatabaseLogs, AnAutosaveInATransactionDeletesNone) {
  cs::AutosaveOptions options;
  options.most = 1;
  ASSERT_TRUE(cs::autosave(options));
  die_in_a_transaction("delete");
  const auto torn = cs::autosave(options);
  ASSERT_TRUE(torn);
  EXPECT_EQ(torn->saved.outcome, cs::Saved::Outcome::created);
  EXPECT_EQ(torn->undecided.code, cs::Code::changed_meanwhile);
  EXPECT_TRUE(torn->deleted.empty());
  EXPECT_EQ(rows(), "ok: live 900");
  const auto whole = cs::autosave(options);
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->undecided.code, cs::Code::ok);
  EXPECT_EQ(whole->deleted.size(), 2U);
}

TEST_F(DatabaseLogs, OneThatComesMeanwhileEndsTheRestore) {
  cs::RestoreOptions options = without_keeping();
  options.progress = [this](const cs::Progress& progress) {
    if (progress.phase == cs::Progress::Phase::exchange) write_file(file("-journal"), "begun");
  };
  const cs::Error error = refused(options);
  EXPECT_EQ(error.code, Code::changed_meanwhile);
  EXPECT_EQ(error.path, file("-journal"));
  EXPECT_EQ(error.aftermath, cs::Aftermath::untouched);
  shell("rm " + file("-journal"));
  EXPECT_EQ(everything(true), before_);
}

}  // namespace
