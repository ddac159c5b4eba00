// Sizes that no gateway has, and files that change all the time.

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "confsave/snapshots.h"
#include "snapshots/database.h"
#include "support/gateway.h"
#include "tar_writer.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using ConfSave::int64;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

/// How long a call takes, and by how much the memory of this process grows while it runs.
class Meter {
 public:
  milliseconds time() const {
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start_);
  }
  long mebibytes() const { return (peak() - before_) / 1024; }

 private:
  static long peak() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
      if (word == "VmHWM:") break;
    }
    long kibibytes = 0;
    status >> kibibytes;
    return kibibytes;
  }

  /// Counts the peak anew from here on, where the kernel can do that.
  static long new_peak() {
    std::ofstream("/proc/self/clear_refs") << "5\n";
    return peak();
  }

  long before_ = new_peak();
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

class Limit : public Gateway {
 protected:
  /// A whole snapshot "weekly", whose larger archive is replaced by `packed`.
  void store(const std::string& packed) {
    if (!exists(database())) {
      make_configuration();
      ASSERT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
    }
    write_file(root() + "/packed", packed);
    ASSERT_EQ(shell("sqlite3 " + database() + " \"update Config set keybase = readfile('" + root() +
                    "/packed')\""),
              0);
  }

  std::string gzip(const std::string& bytes) {
    write_file(root() + "/plain", bytes);
    EXPECT_EQ(shell("gzip -nc " + root() + "/plain > " + root() + "/packed"), 0);
    return read_file(root() + "/packed");
  }

  /// The only problem of the snapshot.
  std::string problem() {
    const auto verdict = verify({"weekly"});
    if (!verdict) return verdict.error().text;
    EXPECT_EQ(verdict->state, Verdict::State::unsafe);
    return verdict->problems.size() == 1 ? verdict->problems.front() : "no problem, or several";
  }
};

TEST_F(Limit, ABombIsRefusedWithinASecondAndInLittleMemory) {
  const std::string zeros = gzip(std::string(16 << 20, '\0'));
  std::string bomb;
  for (int i = 0; i < 128; ++i) bomb += zeros;
  // Zeros alone, and behind the end of a tar.
  for (const std::string& head : {std::string(), gzip(tar_member({"a"}) + tar_end())}) {
    store(head + bomb);
    const Meter meter;
    EXPECT_EQ(problem(), "keybase: the archive unpacks to more than 250 times its size");
    EXPECT_LT(meter.time(), milliseconds(1000));
    EXPECT_LT(meter.mebibytes(), 48);
  }
}

TEST_F(Limit, HolesCountAsContent) {
  ASSERT_EQ(shell("cd " + root() + " && truncate -s 2G s && tar cSzf t.gz s"), 0);
  store(read_file(root() + "/t.gz"));
  const Meter meter;
  EXPECT_EQ(problem(), "s: the archive unpacks to more than 250 times its size");
  EXPECT_LT(meter.time(), milliseconds(1000));
  EXPECT_LT(meter.mebibytes(), 48);
}

TEST_F(Limit, AHundredThousandMembersAreRead) {
  std::string tar;
  for (int i = 0; i < 100000; ++i) {
    tar += tar_member({"station/" + std::to_string(100000 + i), '0', i % 100 == 0 ? "content" : ""});
  }
  store(gzip(tar + tar_end()));
  const Meter meter;
  const auto found = members({"weekly"});
  ASSERT_TRUE(found) << found.error().text;
  EXPECT_EQ(found->size(), 100000U + tree(etc_dir()).size());
  EXPECT_LT(meter.time(), milliseconds(15000));
  EXPECT_LT(meter.mebibytes(), 400);
}

TEST_F(Limit, AHundredThousandRowsAreListed) {
  make_table();
  test::Database(database())
      .run(
          "with recursive n(i) as (select 1 union all select i + 1 from n where i < 100000) "
          "insert into Config (name, version, keybase, etc, type, save_time) "
          "select 'name' || i, 5, x'00', x'00', 1, i from n");
  const Meter meter;
  const auto all = list();
  ASSERT_TRUE(all) << all.error().text;
  EXPECT_EQ(all->size(), 100000U);
  EXPECT_LT(meter.time(), milliseconds(5000));
  Query query;
  query.pattern = "name77777";
  const auto found = find(query);
  ASSERT_TRUE(found) << found.error().text;
  EXPECT_EQ(found->id, 77777);
  EXPECT_EQ(note({"name77777", 5}, "x").code, Code::ok);
  EXPECT_EQ(verify({"name99999", 5})->state, Verdict::State::damaged);
  EXPECT_LT(meter.time(), milliseconds(10000));
}

#if !defined(CONFSAVE_SANITIZED)  // Sanitizers keep what is freed.

TEST_F(Limit, ASaveHoldsThePackedArchivesAtMostTwice) {
  constexpr long kMebibytes = 24;
  // What is freed goes back to the system, and does not count.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
  make_configuration();
  SaveOptions options;
  options.overwrite = true;
  for (const char* what : {"created", "replaced", "replaced again"}) {
    shell("head -c " + std::to_string(kMebibytes << 20) + " /dev/urandom > " + config_dir() + "gw1.conf");
    const Meter meter;
    ASSERT_TRUE(save({"weekly"}, options)) << what;
    EXPECT_LT(meter.mebibytes(), 2 * kMebibytes + 12) << what;
  }
}

#endif

TEST_F(Limit, NamesHaveEveryByteExceptALineFeed) {
  make_configuration();
  shell("rm -rf " + config_dir() + "station && mkdir " + config_dir() + "station");
  std::size_t count = 0;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '/' || byte == '\n') continue;
    const std::string letter(1, static_cast<char>(byte));
    write_file(config_dir() + "station/" + letter + "x" + letter, letter);
    ++count;
  }
  ASSERT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  const auto found = members({"weekly"});
  ASSERT_TRUE(found) << found.error().path << found.error().text;
  std::size_t there = 0;
  for (const Member& member : *found) {
    there += member.path.rfind(config_dir() + "station/", 0) == 0 && member.kind == Kind::file ? 1 : 0;
  }
  EXPECT_EQ(there, count);
  const auto same = compare({"weekly"}, Live{});
  ASSERT_TRUE(same) << same.error().path << same.error().text;
  EXPECT_EQ(same->size(), 0U) << same->front().path;

  write_file(config_dir() + "station/a\nb", "");
  EXPECT_EQ(compare({"weekly"}, Live{})->size(), 1U);
  ASSERT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  EXPECT_EQ(problem(), "station/a\\x0ab: the name of a member has a line feed");
}

/// Changes the configuration all the time, in a process of its own.
class Busybody {
 public:
  explicit Busybody(const std::string& station) : process_(fork()) {
    if (process_ == 0) run(station);
  }
  Busybody(const Busybody&) = delete;
  Busybody& operator=(const Busybody&) = delete;
  ~Busybody() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }

 private:
  [[noreturn]] static void run(const std::string& station) {
    std::mt19937 source(1);
    std::error_code ignored;
    for (;;) {
      const std::string name = station + "/" + std::to_string(source() % 20);
      switch (source() % 6) {
        case 0:
          std::ofstream(name) << std::string(source() % 5000, 'x');
          break;
        case 1:
          std::ofstream(name, std::ios::app) << std::string(source() % 300000, 'y');
          break;
        case 2:
          fs::remove_all(name, ignored);
          break;
        case 3:
          fs::create_directories(name + "/d", ignored);
          break;
        case 4:
          fs::rename(name, station + "/" + std::to_string(source() % 20), ignored);
          break;
        default:
          fs::create_symlink("x", name, ignored);
      }
    }
  }

  pid_t process_;
};

TEST_F(Limit, WhatSQLiteDoesNotStoreIsRefused) {
  make_table();
  const auto refusal = [this](const std::vector<char>& keybase, const std::vector<char>& etc) {
    auto storage = ConfSave::snapshots::Database::open(database(), milliseconds(1000));
    sqlite3_limit(storage->get(), SQLITE_LIMIT_LENGTH, 10000);
    Result<Statement> insert = storage->prepare(
        "insert into Config (name, version, keybase, etc) values (hex(randomblob(8)), 5, ?, ?)");
    const bool done = insert->bind(keybase).bind(etc).run();
    return done ? "" : storage->error().text;
  };
  const std::string too_large =
      "SQLite stores at most 10000 bytes in a row; take large files out of the configuration";
  const std::vector<char> most(9000);
  const std::vector<char> half(6000);
  const std::vector<char> more(10001);
  EXPECT_EQ(refusal(most, {}), "");
  EXPECT_EQ(refusal(more, {}), too_large);
  EXPECT_EQ(refusal({}, more), too_large);
  EXPECT_EQ(refusal(half, half), too_large);
  EXPECT_EQ(query("select count(*) from Config")[0][0], "1");
}

TEST_F(Limit, FilesMayAppearVanishAndChangeWhileTheyAreRead) {
  make_configuration();
  shell("rm -rf " + config_dir() + "station && mkdir " + config_dir() + "station");
  ASSERT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  std::map<int, int> ends;
  {
    const Busybody busybody(config_dir() + "station");
    for (int i = 0; i < 300; ++i) {
      const auto result = compare({"weekly"}, Live{});
      const Error error = result ? Error{} : result.error();
      ++ends[static_cast<int>(error.code)];
      EXPECT_TRUE(error.code == Code::ok || error.code == Code::changed_meanwhile)
          << static_cast<int>(error.code) << " " << error.path << ": " << error.text;
      if (HasFailure()) break;
    }
  }
  EXPECT_GT(ends[static_cast<int>(Code::ok)], 0);
  for (const auto& [code, count] : ends) RecordProperty("code" + std::to_string(code), count);
}

}  // namespace
