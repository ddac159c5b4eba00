// Every entry point on every state in which the storage, its directory and the notes may be.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "confsave/snapshots.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;

constexpr milliseconds kWait(150);
/// What a call may take in all, on a busy machine.
constexpr milliseconds kLongest(3000);

template <class Value>
Error error_of(const Result<Value>& result) {
  return result ? Error{} : result.error();
}

ReadOptions reading() {
  ReadOptions options;
  options.wait = kWait;
  return options;
}

ChangeOptions changing() {
  ChangeOptions options;
  options.wait = kWait;
  return options;
}

Query query_of(const std::string& pattern) {
  Query query;
  query.pattern = pattern;
  query.wait = kWait;
  return query;
}

/// The entry points that have the same answer to a state.
enum Group { kList, kFind, kArchives, kNotes, kSave, kRemove, kGroups };

struct EntryPoint {
  const char* name;
  Group group;
  std::function<Error()> call;
};

const std::vector<EntryPoint>& entry_points() {
  static const std::vector<EntryPoint> all{
      {"list", kList, [] { return error_of(list(query_of("*"))); }},
      {"find", kFind, [] { return error_of(find(query_of("weekly"))); }},
      {"members", kArchives, [] { return error_of(members({"weekly"}, reading())); }},
      {"compare with live", kArchives, [] { return error_of(compare({"weekly"}, Live{}, reading())); }},
      {"compare two", kArchives, [] { return error_of(compare({"daily"}, Id{"weekly"}, reading())); }},
      {"verify", kFind,
       [] {
         const auto verdict = verify({"weekly"}, reading());
         // A verdict is no failure; it has its reason.
         if (verdict && verdict->state == Verdict::State::damaged && verdict->problems.empty()) {
           return Error{Code::failed, 0, "", "damaged, but there is no problem"};
         }
         return error_of(verdict);
       }},
      {"note", kNotes, [] { return note({"weekly"}, "x", changing()); }},
      {"pin", kNotes, [] { return pin({"weekly"}, true, changing()); }},
      {"status", kList, [] { return error_of(status(reading())); }},
      {"save", kSave,
       [] {
         SaveOptions options;
         options.wait = kWait;
         return error_of(ConfSave::snapshots::save({"new"}, options));
       }},
      {"remove", kRemove,
       [] {
         RemoveOptions options;
         options.wait = kWait;
         return ConfSave::snapshots::remove({"daily"}, options);
       }},
  };
  return all;
}

class BadStorage;

struct State {
  const char* name;
  std::function<void(BadStorage&)> make;
  Code expected[kGroups];
};

class BadStorage : public Gateway, public testing::WithParamInterface<State> {
 public:
  BadStorage() {
    make_configuration();
    EXPECT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
    EXPECT_TRUE(ConfSave::save("daily", ConfSave::conf_full, 0, true));
  }

  ~BadStorage() override {
    holder_.reset();
    if (mounted_) {
      EXPECT_EQ(shell("umount " + state_dir()), 0);
    }
    if (!unsound_) return;
    shell("rm -rf " + state_dir() + " && mkdir " + state_dir());
  }

  /// Replaces the storage with one that these statements make.
  void forge(const std::vector<std::string>& statements) {
    unsound_ = true;
    shell("rm -f " + database());
    for (const std::string& statement : statements) run(statement);
  }

  void run(const std::string& statement) { Database(database()).run(statement); }

  void write(const std::string& content) {
    unsound_ = true;
    write_file(database(), content);
  }

  void in_state(const std::string& command) {
    unsound_ = true;
    ASSERT_EQ(shell("cd " + state_dir() + " && " + command), 0) << command;
  }

  void make_read_only() {
    mount("mount --bind " + state_dir() + " " + state_dir() + " && mount -o remount,bind,ro " +
          state_dir());
  }

  void fill_the_disk() {
    const std::string copy = root() + "/copy";
    mount("mkdir " + copy + " && cp " + state_dir() + "/* " + copy +
          " && mount -t tmpfs -o size=2m tmpfs " + state_dir() + " && cp --sparse=never " + copy + "/* " +
          state_dir() + " && ! cat /dev/zero >" + state_dir() + "/filler 2>/dev/null");
  }

  void lock(const std::string& name) { holder_.emplace(state_dir() + "/" + name, 60000); }

  void make_notes() { ASSERT_EQ(note({"weekly"}, "before").code, Code::ok); }

  std::string notes_file() const { return state_dir() + "/notes.db"; }
  using Gateway::database;
  using Gateway::state_dir;

 private:
  void mount(const std::string& command) {
    ASSERT_EQ(shell(command), 0) << command;
    mounted_ = true;
  }

  std::optional<LockHolder> holder_;
  bool mounted_ = false;
  bool unsound_ = false;
};

constexpr Code ok = Code::ok;
constexpr Code not_found = Code::not_found;
constexpr Code no_storage = Code::no_storage;
constexpr Code damaged = Code::damaged;

const State kStates[] = {
    // State; then what list and status, find and verify, the readers of archives, the writers of notes,
    // save, and remove answer.
    {"Sound", [](BadStorage&) {}, {ok, ok, ok, ok, ok, ok}},
    {"NoFile",
     [](BadStorage& s) { s.in_state("rm storage.db"); },
     {ok, not_found, not_found, not_found, ok, not_found}},
    {"NoDirectory",
     [](BadStorage& s) { s.in_state("rm -r ../state"); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"EmptyFile", [](BadStorage& s) { s.write(""); }, {ok, not_found, not_found, not_found, ok, not_found}},
    {"Directory",
     [](BadStorage& s) { s.in_state("rm storage.db && mkdir storage.db"); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"Fifo",
     [](BadStorage& s) { s.in_state("rm storage.db && mkfifo storage.db"); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"FifoForAJournal",
     [](BadStorage& s) { s.in_state("mkfifo storage.db-journal"); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"DirectoryForAWal",
     [](BadStorage& s) { s.in_state("mkdir storage.db-wal"); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"DeadLink",
     [](BadStorage& s) { s.in_state("rm storage.db && ln -s storage.db storage.db"); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"Text",
     [](BadStorage& s) { s.write(std::string(5000, 'x')); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"HeaderAlone",
     [](BadStorage& s) { s.write(read_file(s.database()).substr(0, 100)); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"AnotherTable",
     [](BadStorage& s) { s.forge({"create table other (x)"}); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"ForeignColumns",
     [](BadStorage& s) { s.forge({"create table Config (x)"}); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"View",
     [](BadStorage& s) {
       s.forge({"create table t (id)", "create view Config as select * from t"});
     },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"EndlessView",
     [](BadStorage& s) {
       s.forge(
           {"create view Config as with recursive n(i) as (select 1 union all select i+1 from n) "
            "select i id, i name, i version, i keybase, i etc, i type, i save_time, i load_time from n"});
     },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"VirtualTable",
     [](BadStorage& s) { s.forge({"create virtual table Config using fts5(name, version)"}); },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"GeneratedColumns",
     [](BadStorage& s) {
       s.forge(
           {"create table Config (id integer primary key, version, keybase, etc, type, save_time, "
            "load_time, name as (hex(zeroblob(300000000))))",
            "insert into Config (id) values (1)"});
     },
     {no_storage, no_storage, no_storage, no_storage, no_storage, no_storage}},
    {"Locked",
     [](BadStorage& s) { s.lock("storage.db"); },
     {Code::busy, Code::busy, Code::busy, Code::busy, Code::busy, Code::busy}},
    {"ReadOnly",
     [](BadStorage& s) { s.make_read_only(); },
     {ok, ok, ok, Code::denied, Code::denied, Code::denied}},
    {"FullDisk",
     [](BadStorage& s) { s.fill_the_disk(); },
     {ok, ok, ok, Code::no_space, Code::no_space, Code::no_space}},
    {"FullDiskWithAReserve",
     [](BadStorage& s) {
       s.make_notes();
       s.fill_the_disk();
     },
     {ok, ok, ok, Code::no_space, Code::no_space, ok}},
    {"NotesLocked",
     [](BadStorage& s) {
       s.make_notes();
       s.lock("notes.db");
     },
     {ok, ok, ok, Code::busy, ok, Code::busy}},
    {"NotesAreText",
     [](BadStorage& s) { write_file(s.notes_file(), std::string(5000, 'x')); },
     {ok, ok, ok, no_storage, ok, no_storage}},
    {"NotesTruncated",
     [](BadStorage& s) {
       s.make_notes();
       write_file(s.notes_file(), read_file(s.notes_file()).substr(0, 5000));
     },
     {ok, ok, ok, damaged, ok, damaged}},
    {"NotesNewer",
     [](BadStorage& s) {
       s.make_notes();
       Database(s.notes_file()).run("pragma user_version = 1000");
     },
     {ok, ok, ok, Code::newer, ok, Code::newer}},
    {"NotesOfAnotherShape",
     [](BadStorage& s) {
       s.make_notes();
       Database(s.notes_file()).run("drop table note");
       Database(s.notes_file()).run("create table note (x)");
     },
     {ok, ok, ok, no_storage, ok, no_storage}},
    {"NotesAreAView",
     [](BadStorage& s) {
       s.make_notes();
       Database(s.notes_file()).run("alter table note rename to was");
       Database(s.notes_file()).run("create view note as select * from was");
     },
     {ok, ok, ok, no_storage, ok, no_storage}},
    {"NotesAreADirectory",
     [](BadStorage& s) { s.in_state("mkdir notes.db"); },
     {ok, ok, ok, Code::failed, ok, no_storage}},
    {"NotesAreAFifo",
     [](BadStorage& s) { s.in_state("mkfifo notes.db"); },
     {ok, ok, ok, no_storage, ok, no_storage}},
    {"NotesWithAFifoForAJournal",
     [](BadStorage& s) {
       s.make_notes();
       s.in_state("mkfifo notes.db-journal");
     },
     {ok, ok, ok, no_storage, ok, no_storage}},
    {"NotesAreALink",
     [](BadStorage& s) { s.in_state("ln -s /etc/passwd notes.db"); },
     {ok, ok, ok, Code::failed, ok, no_storage}},
    {"NameIsABlob",
     [](BadStorage& s) { s.run("update Config set name = cast(name as blob)"); },
     {ok, ok, ok, ok, ok, ok}},
    {"TypeIsText",
     [](BadStorage& s) { s.run("update Config set type = 'full'"); },
     {ok, ok, ok, ok, ok, ok}},
    {"TimesAreText",
     [](BadStorage& s) { s.run("update Config set save_time = 'then', load_time = x'00ff'"); },
     {ok, ok, ok, ok, ok, ok}},
    {"ArchiveIsNull",
     [](BadStorage& s) { s.run("update Config set keybase = null"); },
     {ok, ok, damaged, ok, ok, ok}},
    {"ArchiveIsText",
     [](BadStorage& s) { s.run("update Config set etc = cast(etc as text)"); },
     {ok, ok, damaged, ok, ok, ok}},
    {"ArchiveIsANumber",
     [](BadStorage& s) { s.run("update Config set etc = 5"); },
     {ok, ok, damaged, ok, ok, ok}},
};

TEST_P(BadStorage, IsAnsweredInTime) {
  GetParam().make(*this);
  if (HasFatalFailure()) return;
  for (const EntryPoint& entry : entry_points()) {
    const auto start = std::chrono::steady_clock::now();
    const Error error = entry.call();
    const auto waited = std::chrono::steady_clock::now() - start;
    const Code expected = GetParam().expected[entry.group];
    EXPECT_EQ(static_cast<int>(error.code), static_cast<int>(expected))
        << entry.name << ": " << error.path << ": " << error.text;
    EXPECT_EQ(error.text.empty(), error.code == ok) << entry.name;
    EXPECT_LT(waited, kLongest) << entry.name;
    if (expected == Code::busy) {
      EXPECT_GE(waited, kWait - milliseconds(10)) << entry.name;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(States, BadStorage, testing::ValuesIn(kStates),
                         [](const auto& state) { return std::string(state.param.name); });

class TruncatedArchive : public Gateway {};

TEST_F(TruncatedArchive, IsDamagedWhereverItEnds) {
  make_configuration();
  shell("head -c 9000 /dev/urandom > " + config_dir() + "user/gateway.conf");
  ASSERT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  const std::string size = Database(database()).value("select length(keybase) from Config");
  const std::string keybase = "x'" + Database(database()).value("select hex(keybase) from Config") + "'";
  ASSERT_GT(std::stoi(size), 9000);
  for (int end = 0; end < std::stoi(size); end += 512) {
    Database(database())
        .run("update Config set keybase = substr(" + keybase + ", 1, " + std::to_string(end) + ")");
    const auto verdict = verify({"weekly"});
    ASSERT_TRUE(verdict) << end;
    EXPECT_EQ(verdict->state, Verdict::State::damaged) << end;
    EXPECT_EQ(verdict->problems.size(), 1U) << end;
    EXPECT_EQ(members({"weekly"}).error().code, Code::damaged) << end;
    EXPECT_EQ(compare({"weekly"}, Live{}).error().code, Code::damaged) << end;
  }
}

}  // namespace
