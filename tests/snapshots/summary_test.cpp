// The summary that is kept for status(): never believed but where it is right.

#include "snapshots/summary.h"

#include <sys/stat.h>

#include <functional>

#include "snapshots/digest.h"
#include "snapshots/saving.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;

class SummaryTest : public Saving {
 protected:
  /// A storage of a thousand rows, the fewest that have a summary.
  SummaryTest() {
    saved("source");
    run("insert into Config (name, version, keybase, type, save_time) "
        "with recursive numbers (n) as (select 1 union all select n + 1 from numbers where n < 999) "
        "select case when n = 500 then 'corlu-config' when n % 100 = 0 then "
        "'autosave-2026-01-01-00-00-00-' "
        "else 's' end || case when n = 500 then '' else n end, " +
        std::to_string(ConfSave::CURRENT_VERSION) +
        ", zeroblob(case when n = 500 then 1000000 else n end), 1, 1000 + n from numbers");
    keep_summary();
  }

  std::string file() const { return database() + "-summary"; }
  void run(const std::string& sql) const { Database(database()).run(sql); }

  /// How often all rows were read since the latest forget().
  long readings() const {
    long count = 0;
    for (const std::string& text : recorder.statements())
      count += text.rfind("select name, save_time", 0) == 0 ? 1 : 0;
    return count;
  }

  static Texts shown(const Summary& summary) {
    return {std::to_string(summary.snapshots), std::to_string(summary.newest),
            std::to_string(summary.newest_autosave), std::to_string(summary.largest)};
  }

  Texts truth() const {
    return Database(database())
        .query(
            "select count(*), max(save_time), "
            "ifnull(max(case when name glob 'autosave-2*' then save_time end), 0), "
            "max(ifnull(length(keybase), 0) + ifnull(length(etc), 0)) "
            "from Config where name <> 'corlu-config'")
        .at(0);
  }

  Texts found() {
    forget();
    const auto summary = summarize(Deadline(milliseconds(0)));
    return summary ? shown(*summary) : Texts{summary.error().text};
  }

  /// What is found is so, and no row was read for it.
  void expect_current() {
    const Texts summary = found();
    EXPECT_EQ(readings(), 0);
    EXPECT_EQ(summary, truth());
  }

  /// What is found is so, because the rows were read.
  void expect_outdated() {
    const Texts summary = found();
    EXPECT_EQ(readings(), 1);
    EXPECT_EQ(summary, truth());
  }

  // Where the parts of the file are.
  static constexpr std::size_t kDigest = sizeof(Digest);
  static constexpr std::size_t kNumbers = sizeof(Summary);

  /// The file with a digest that is right.
  static std::string with_digest(const std::string& record) {
    const std::string body = record.substr(0, record.size() - kDigest);
    Sha256 sum;
    sum.add(body.data(), body.size());
    const Digest digest = sum.finish();
    return body + std::string(digest.begin(), digest.end());
  }
};

TEST_F(SummaryTest, IsFoundInsteadOfTheRows) {
  expect_current();
  struct stat status = {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
  // What it says is what is found.
  const std::string record = read_file(file());
  const Summary wrong{77, 1, 2, 3};
  std::string other = record;
  other.replace(other.size() - kDigest - kNumbers, kNumbers, reinterpret_cast<const char*>(&wrong),
                kNumbers);
  write_file(file(), with_digest(other));
  EXPECT_EQ(found(), shown(wrong));
}

TEST_F(SummaryTest, EachByteOfTheFingerprintCounts) {
  const std::string record = read_file(file());
  ASSERT_EQ(with_digest(record), record);
  EXPECT_NE(record.find(read_file(database()).substr(0, 100)), std::string::npos);
  for (std::size_t i = 0; i < record.size() - kDigest - kNumbers; ++i) {
    std::string other = record;
    other[i] = static_cast<char>(other[i] ^ 1);
    write_file(file(), with_digest(other));
    found();
    EXPECT_EQ(readings(), 1) << i;
  }
  write_file(file(), record);
  expect_current();
}

TEST_F(SummaryTest, ADamagedOneOnlyCostsTime) {
  const std::string record = read_file(file());
  for (std::size_t i = 0; i < record.size(); i += 3) {
    std::string other = record;
    other[i] = static_cast<char>(other[i] ^ 0x10);
    write_file(file(), other);
    expect_outdated();
    write_file(file(), record.substr(0, i));
    expect_outdated();
  }
  write_file(file(), std::string(record.size(), '\0'));
  expect_outdated();
  // The next one that can be kept is right again.
  keep_summary();
  expect_current();
}

TEST_F(SummaryTest, WhatIsInItsPlaceStays) {
  const std::string copy = root() + "/copy";
  const std::string record = read_file(file());
  for (const std::string& command :
       Texts{"mv $f " + copy + "; ln -s " + copy + " $f", "rm $f; mkdir $f", "rmdir $f; mkfifo $f"}) {
    ASSERT_EQ(shell("f=" + file() + "; " + command), 0);
    expect_outdated();
    EXPECT_TRUE(saved("again", overwrite()).warnings.empty());
    expect_outdated();
  }
  EXPECT_EQ(read_file(copy), record);
}

TEST_F(SummaryTest, AnyChangeOfTheStorageShows) {
  const std::string change =
      " \"update Config set save_time = (select max(save_time) + 1 from Config) where name = 's1'\"; ";
  for (const std::string& command :
       {"sqlite3 $db" + change,
        "sqlite3 $db 'delete from Config where name = \"s2\"'; sqlite3 $db" + change,
        std::string("sqlite3 $db vacuum"), std::string("touch $db"),
        std::string("touch -d @1000000000 $db"),
        // Replaced, overwritten, and overwritten by what was there before.
        "cp -p $db $copy; sqlite3 $copy" + change + "touch -r $db $copy; mv $copy $db",
        "cp -p $db $copy; sqlite3 $copy" + change + "touch -r $db $copy; cp -p $copy $db",
        "cp -p $db $copy; sqlite3 $db" + change + "cp -p $copy $db"}) {
    expect_current();
    ASSERT_EQ(shell("db=" + database() + " copy=" + root() + "/copy; " + command), 0) << command;
    expect_outdated();
    run("insert or ignore into Config (name, version) values ('s2', 0)");
    keep_summary();
  }
}

TEST_F(SummaryTest, ChangesWithinOneTickOfTheClockShow) {
  const Database other(database());
  other.run("pragma synchronous=off");
  for (int i = 0; i < 50; ++i) {
    other.run("update Config set load_time = 1 where name = 's1'");
    keep_summary();
    other.run("update Config set save_time = 4000000000 + " + std::to_string(i) + " where name = 's1'");
    expect_outdated();
  }
}

TEST_F(SummaryTest, WhatTheContractLibraryDoesShows) {
  const std::string target = root() + "/target/";
  std::filesystem::create_directory(target);
  const std::vector<std::function<void()>> calls{
      [] { ConfSave::Storage().Create("contract", ConfSave::conf_full, ConfSave::CURRENT_VERSION); },
      [&] { ConfSave::Storage().Load("contract", target.c_str(), ConfSave::CURRENT_VERSION, true); },
      [] { ConfSave::Storage().Delete("contract", ConfSave::CURRENT_VERSION); }};
  for (const auto& call : calls) {
    expect_current();
    call();
    expect_outdated();
    keep_summary();
  }
}

TEST_F(SummaryTest, EachCallThatChangesKeepsItOnce) {
  const std::string exported = root() + "/exported";
  ASSERT_TRUE(export_to({{"source"}}, exported));
  const std::vector<std::function<bool()>> calls{
      [] { return saved("new").outcome == Saved::Outcome::created; },
      [] { return saved("new", overwrite()).outcome == Saved::Outcome::replaced; },
      [] {
        AutosaveOptions options;
        options.most = 6;
        const auto done = autosave(options);
        return done && done->deleted.size() == 3;
      },
      [] {
        PruneOptions options;
        options.keep = 8;
        options.pattern = "s99*";
        const auto done = prune(options);
        return done && done->deleted.size() == 3;
      },
      [] { return ConfSave::snapshots::remove({"s2"}).code == Code::ok; },
      [this] {
        write_file(config("user/gateway.conf"), "damaged\n");
        RestoreOptions options;
        options.keep = false;
        const auto done = restore({"source"}, options);
        return done && done->outcome == Restored::Outcome::restored;
      },
      [&] {
        ImportOptions options;
        options.name = "imported";
        return bool(import_from(exported, options));
      }};
  for (const auto& call : calls) {
    // As many as it deletes.
    run("insert into Config (name, version) select 'more' || id, 0 from Config order by id desc limit 3");
    forget();
    EXPECT_TRUE(call());
    EXPECT_EQ(readings(), 1);
    expect_current();
  }
}

TEST_F(SummaryTest, WhatChangesNoRowReadsNone) {
  forget();
  EXPECT_EQ(saved("source", if_changed()).outcome, Saved::Outcome::unchanged);
  EXPECT_EQ(code("source"), Code::taken);
  EXPECT_EQ(ConfSave::snapshots::remove({"missing"}).code, Code::not_found);
  EXPECT_EQ(note({"source"}, "x").code, Code::ok);
  EXPECT_EQ(pin({"source"}, true).code, Code::ok);
  EXPECT_EQ(readings(), 0);
  expect_current();
}

TEST_F(SummaryTest, FewRowsAreRead) {
  ASSERT_EQ(shell("rm " + file()), 0);
  run("delete from Config where name = 's1'");
  forget();
  keep_summary();
  EXPECT_EQ(readings(), 0);
  EXPECT_FALSE(exists(file()));
  expect_outdated();
  run("insert into Config (name, version) values ('s1', 0)");
  keep_summary();
  expect_current();
}

TEST_F(SummaryTest, WaitsForNobody) {
  run("update Config set save_time = 1 where name = 's1'");
  const std::string record = read_file(file());
  {
    const LockHolder holder(database(), 60000);
    const auto start = std::chrono::steady_clock::now();
    keep_summary();
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(5000));
  }
  EXPECT_EQ(read_file(file()), record);
  expect_outdated();
}

TEST_F(SummaryTest, AWriteAheadLogHasNone) {
  run("pragma journal_mode=wal");
  expect_outdated();
  const Database other(database());
  other.run("update Config set save_time = 3000000000 where name = 's1'");
  expect_outdated();
  keep_summary();
  expect_outdated();
  other.run("update Config set save_time = 3000000001 where name = 's1'");
  expect_outdated();
}

TEST_F(SummaryTest, AWriteAheadLogThatWasCopiedHasNone) {
  const std::string copy = root() + "/copy";
  ASSERT_EQ(shell("cp " + database() + " " + copy), 0);
  const Database other(copy);
  other.run("pragma journal_mode=wal");
  other.run("delete from Config where name = 's1'");
  expect_current();
  // SQLite reads it, and not a byte of the storage has changed.
  ASSERT_EQ(shell("cp " + copy + "-wal " + database() + "-wal"), 0);
  EXPECT_EQ(found().at(0), "998");
}

TEST_F(SummaryTest, StatusSaysTheSame) {
  std::vector<Texts> answers;
  for (const bool is_kept : {true, false}) {
    if (!is_kept) std::filesystem::remove(file());
    forget();
    const auto found = status();
    ASSERT_TRUE(found);
    EXPECT_EQ(readings(), is_kept ? 0 : 1);
    Texts answer = {std::to_string(found->snapshots), std::to_string(found->newest),
                    std::to_string(found->newest_autosave), std::to_string(found->storage_bytes)};
    for (const Attention& item : found->attention) answer.push_back(item.code + ": " + item.text);
    answers.push_back(answer);
  }
  EXPECT_EQ(answers[0], answers[1]);
  EXPECT_GE(answers[0].size(), 5U);
}

}  // namespace
