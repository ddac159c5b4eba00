// The pin and the comment of a row that takes the place of another one: neither a kill nor a failure parts
// them from the row.

#include <thread>

#include "snapshots/exporting.h"
#include "snapshots/killing.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;

/// "weekly" is stored and pinned, and an exported file has another one of its name.
class EarlyNotesTest : public Exporting {
 protected:
  EarlyNotesTest() {
    done(export_to({{"weekly"}}, exported()));
    EXPECT_EQ(pin({"weekly"}, true).code, Code::ok);
    change_configuration();
  }

  void change_configuration() { write_file(config("gw1.conf"), "change " + std::to_string(++changes_)); }

  static SaveOptions with_comment(const std::string& comment) {
    SaveOptions options = overwrite();
    options.comment = comment;
    return options;
  }

  /// Stores "weekly" again, pinned, in a table that gives ids again.
  void move_to_a_foreign_table() const {
    drop_everything();
    test::Database(database())
        .run(
            "create table Config (id integer primary key, name, version, type, save_time, load_time, "
            "keybase, etc)");
    saved("weekly", with_comment("before the change"));
    ASSERT_EQ(pin({"weekly"}, true).code, Code::ok);
  }

  /// Kills a save at each of its statements. Returns how often.
  int kill_saves() {
    int kills = 0;
    std::string last = row();
    for (bool killed = true; killed && kills < 200; ++kills) {
      change_configuration();
      const std::string comment = std::to_string(kills);
      killed = was_killed(in_another_process([&] {
        die_at_statement(kills + 1);
        return code("weekly", with_comment(comment)) == Code::ok ? 0 : 1;
      }));
      const std::string now = row();
      const bool is_new = now.find(" " + comment + "!") != std::string::npos;
      EXPECT_TRUE(now == last || is_new) << now << " after a kill at statement " << kills + 1;
      last = now;
    }
    EXPECT_EQ(last.substr(last.find(' ')), " " + std::to_string(kills - 1) + "!");
    empty_directory(temp_dir());
    return kills;
  }

  /// The same of an import.
  int kill_imports() const {
    int kills = 0;
    for (bool killed = true; killed && kills < 300; ++kills) {
      killed = was_killed(in_another_process([&] {
        die_at_statement(kills + 1);
        return refused(exported(), forced()).code == Code::ok ? 0 : 1;
      }));
      const std::string now = row();
      EXPECT_EQ(now.substr(now.find(' ')), " before the change!") << "killed at statement " << kills + 1;
    }
    return kills;
  }

  /// The comments of all notes, with "!" behind those that pin, by id.
  Texts notes() const {
    Texts result;
    for (const Texts& row :
         test::Database(notes_file()).query("select comment, pinned from note order by id"))
      result.push_back(row[0] + (row[1] != "0" ? "!" : ""));
    return result;
  }

  /// The id and the note of the only row.
  static std::string row() {
    const auto found = list();
    if (!found || found->size() != 1) return "?";
    const Snapshot& snapshot = found->front();
    return std::to_string(snapshot.id) + " " + snapshot.comment + (snapshot.pinned ? "!" : "");
  }

  /// From now on this table takes no row but the first. Triggers would not run.
  void close_table(const std::string& table) const { edit_table(table, "saved integer", kClosed); }
  void open_table(const std::string& table) const { edit_table(table, kClosed, "saved integer"); }

  /// The error of one who writes more.
  std::string refusal() const { return notes_file() + ": CHECK constraint failed: id < 2"; }

  /// The old row and its note are there, and nothing else.
  void expect_nothing_changed() const {
    EXPECT_EQ(row(), "1 before the change!");
    EXPECT_EQ(notes(), Texts{"before the change!"});
  }

 private:
  static constexpr const char* kClosed = "saved integer check (id < 2)";

  void edit_table(const std::string& table, const std::string& old, const std::string& text) const {
    test::Database(notes_file())
        .run("pragma writable_schema = on; update sqlite_schema set sql = replace(sql, '" + old + "', '" +
             text + "') where name = '" + table + "'; pragma writable_schema = reset");
  }

  int changes_ = 0;
};

TEST_F(EarlyNotesTest, ASaveThatIsKilledAtAnyStatementLeavesThePin) { EXPECT_GT(kill_saves(), 20); }

TEST_F(EarlyNotesTest, AnImportThatIsKilledAtAnyStatementLeavesThePin) { EXPECT_GT(kill_imports(), 40); }

TEST_F(EarlyNotesTest, AKillLeavesThePinInAForeignTable) {
  move_to_a_foreign_table();
  EXPECT_GT(kill_saves(), 20);
  move_to_a_foreign_table();
  EXPECT_GT(kill_imports(), 40);
}

/// "storage.db" is the last file that is synced before the end.
TEST_F(EarlyNotesTest, ACommitThatFailsAfterItTookEffectLeavesThePin) {
  const struct {
    const char* what;
    std::string comment;
    std::function<Error()> store;
  } cases[] = {
      {"save", " new!", [] { return failure({"weekly"}, with_comment("new")); }},
      {"import", " before the change!", [this] { return refused(exported(), forced()); }},
  };
  for (const auto& c : cases) {
    int stored = 0;
    bool has_failed = true;
    for (int sync = 1; has_failed; ++sync) {
      ASSERT_LT(sync, 20);
      change_configuration();
      const std::string old = row();
      Error error;
      {
        const FailingSync failing(sync);
        error = c.store();
        has_failed = FailingSync::has_failed();
      }
      const std::string now = row();
      const bool is_new = now != old;
      if (error.code == Code::ok) continue;
      EXPECT_EQ(now.substr(now.find(' ')), is_new ? c.comment : old.substr(old.find(' ')))
          << c.what << sync;
      EXPECT_EQ(error.aftermath, is_new ? Aftermath::perhaps_done : Aftermath::untouched);
      if (!is_new) continue;
      ++stored;
      EXPECT_EQ(shown(error), shown({Code::failed, 0, database(),
                                     "what was to be stored may be there all the same: disk I/O error"}));
    }
    EXPECT_EQ(stored, 1) << c.what;
  }
}

TEST_F(EarlyNotesTest, APinThatCannotBeKeptKeepsTheOldSnapshot) {
  close_table("note");
  for (const Error& error : {failure({"weekly"}, overwrite()), refused(exported(), forced())}) {
    EXPECT_EQ(error.path, notes_file());
    EXPECT_EQ(error.text, "the pin cannot be kept: CHECK constraint failed: id < 2");
    expect_nothing_changed();
  }
  open_table("note");
  EXPECT_TRUE(saved("weekly", overwrite()).snapshot.pinned);
}

TEST_F(EarlyNotesTest, WithoutAPinNotesThatCannotBeKeptAreAWarning) {
  ASSERT_EQ(pin({"weekly"}, false).code, Code::ok);
  close_table("note");
  const Saved result = saved("weekly", overwrite());
  EXPECT_EQ(result.warnings,
            Texts{"the comment, the author and the list of files were not kept: " + refusal()});
  const auto imported = import_from(exported(), forced());
  ASSERT_TRUE(imported);
  EXPECT_EQ(imported->warnings,
            Texts{"the comment, the pin and the list of files of 'weekly' were not kept: " + refusal()});
  open_table("note");
}

TEST_F(EarlyNotesTest, AManifestThatCannotBeKeptLeavesTheNote) {
  close_table("manifest");
  const Saved result = saved("weekly", with_comment("new"));
  EXPECT_EQ(result.warnings, Texts{"the list of files was not kept: " + refusal()});
  EXPECT_EQ(result.snapshot.comment, "new");
  EXPECT_TRUE(result.snapshot.pinned);
  EXPECT_EQ(row(), "2 new!");
  const auto imported = import_from(exported(), forced());
  ASSERT_TRUE(imported);
  EXPECT_EQ(imported->warnings, Texts{"the list of files of 'weekly' was not kept: " + refusal()});
  EXPECT_TRUE(imported->snapshots.at(0).pinned);
  EXPECT_EQ(row(), "3 before the change!");
}

TEST_F(EarlyNotesTest, AReaderOfTheNotesDoesNotCostAPin) {
  SaveOptions options = overwrite();
  options.wait = milliseconds(1);
  const test::Database reader(notes_file());
  reader.run("begin; select * from note");
  const Error error = failure({"weekly"}, options);
  EXPECT_EQ(error.code, Code::busy);
  EXPECT_EQ(error.path, notes_file());
  expect_nothing_changed();
  // Who waits longer gets there.
  std::thread release([&reader] {
    std::this_thread::sleep_for(milliseconds(2000));
    reader.run("commit");
  });
  EXPECT_TRUE(saved("weekly", overwrite()).snapshot.pinned);
  release.join();
}

TEST_F(EarlyNotesTest, WithoutAPinAShortWaitCostsNoComment) {
  SaveOptions options;
  options.comment = "daily";
  options.wait = milliseconds(1);
  const test::Database reader(notes_file());
  reader.run("begin; select * from note");
  std::thread release([&reader] {
    std::this_thread::sleep_for(milliseconds(1200));
    reader.run("commit");
  });
  const Saved result = saved("daily", options);
  release.join();
  EXPECT_EQ(result.snapshot.comment, "daily");
  EXPECT_EQ(result.warnings, Texts());
}

TEST_F(EarlyNotesTest, OfARowThatIsNotCommittedNoNoteStays) {
  const test::Database reader(database());
  reader.run("begin; select count(*) from Config");
  ImportOptions importing = forced();
  importing.wait = milliseconds(300);
  EXPECT_EQ(code("weekly", waiting(300)), Code::busy);
  expect_nothing_changed();
  EXPECT_EQ(refused(exported(), importing).code, Code::busy);
  expect_nothing_changed();
}

TEST_F(EarlyNotesTest, AnIdThatIsUsedAgainDoesNotCostThePin) {
  move_to_a_foreign_table();
  {
    const test::Database reader(database());
    reader.run("begin; select count(*) from Config");
    EXPECT_EQ(code("weekly", waiting(300)), Code::busy);
    expect_nothing_changed();
  }
  EXPECT_TRUE(saved("weekly", overwrite()).snapshot.pinned);
  EXPECT_EQ(row(), "2 !");
}

TEST_F(EarlyNotesTest, OfSeveralOfOneNameNoneIsReplaced) {
  move_to_a_foreign_table();
  const auto copy = [this](const std::string& what) {
    test::Database(database())
        .run(
            "insert into Config (name, version, type, save_time, keybase, etc) "
            "select 'weekly', version, type, save_time - 1000, keybase, etc from Config " +
            what);
  };
  copy("");
  const std::string text = shown({Code::ambiguous, 0, "", "more than one snapshot is stored as 'weekly'"});
  const auto all = list();
  ASSERT_TRUE(all);
  const Rows before = rows();
  const auto refusal = [](const Snapshot& agreed) {
    const auto result = save_over(agreed);
    return result ? Error{} : result.error();
  };
  EXPECT_EQ(refusal(all->at(0)).code, Code::pinned);
  EXPECT_EQ(shown(refusal(all->at(1))), text);
  EXPECT_EQ(shown(failure({"weekly"}, overwrite())), text);
  EXPECT_EQ(shown(refused(exported(), forced())), text);
  EXPECT_EQ(code("weekly"), Code::pinned);
  EXPECT_EQ(rows(), before);
  // One that another program stores during the save.
  test::Database(database()).run("delete from Config where id = 2");
  after_packing([&](int) { copy(""); });
  EXPECT_EQ(shown(failure({"weekly"}, overwrite())), text);
  host.on_command = nullptr;
  EXPECT_EQ(rows(), before);
  EXPECT_EQ(notes(), Texts{"before the change!"});
}

TEST_F(EarlyNotesTest, NotesThatCannotBeReadMayHoldThePin) {
  const std::string good = read_file(notes_file());
  const struct {
    std::function<void()> spoil;
    std::string text;
  } cases[] = {
      {[&] { write_file(notes_file(), std::string(5000, 'x')); }, "file is not a database"},
      {[&] { test::Database(notes_file()).run("pragma user_version = 9"); },
       "a newer version of ConfSave wrote this file"},
  };
  for (const auto& c : cases) {
    c.spoil();
    const std::string end = ", the new one is not: " + notes_file() + ": " + c.text;
    EXPECT_EQ(code("weekly"), Code::taken);
    EXPECT_EQ(saved("weekly", overwrite()).warnings.at(0), "if the old snapshot was pinned" + end);
    const auto imported = import_from(exported(), forced());
    ASSERT_TRUE(imported);
    EXPECT_EQ(imported->warnings.at(0), "if the old snapshot 'weekly' was pinned" + end);
    write_file(notes_file(), good);
  }
}

}  // namespace
