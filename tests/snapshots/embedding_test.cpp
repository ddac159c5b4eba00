// What a host may do to the process that it shares with the library.

#include <fcntl.h>
#include <langinfo.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <functional>

#include "snapshots/database.h"
#include "snapshots/exporting.h"

namespace {

using namespace test;
using cs::Code;
using std::chrono::milliseconds;

class Embedding : public Exporting {
 public:
  Embedding() { done(cs::export_to({{"weekly"}}, exported())); }

  /// Whether everything that reads and writes works. Calls `act` where the library runs the host's code,
  /// and `prepare` before each call.
  bool works(
      const std::function<void()>& act = [] {}, const std::function<void()>& prepare = [] {}) const {
    write_file(config("gw1.conf"), "changed");
    cs::RestoreOptions options;
    options.progress = [&act](const cs::Progress&) { act(); };
    options.check = [&act] {
      act();
      return true;
    };
    const auto sink = [&act](std::string_view) {
      act();
      return cs::Error{};
    };
    std::string bytes = read_file(exported());
    const auto supply = [&]() -> cs::Result<std::string_view> {
      act();
      supplied_ = std::exchange(bytes, std::string());
      return std::string_view(supplied_);
    };
    const std::vector<std::function<bool()>> calls = {
        [] { return code("again", overwrite()) == Code::ok; },
        [&] { return bool{cs::restore({"weekly"}, options)}; },
        [&] { return bool{cs::export_to({{"weekly"}}, sink)}; },
        [&] { return bool{cs::import_from(supply, forced())}; },
        [] { return bool{cs::verify({"weekly"})}; }};
    return std::all_of(calls.begin(), calls.end(), [&prepare](const std::function<bool()>& call) {
      prepare();
      return call();
    });
  }

  mutable std::string supplied_;
};

/// Another thread may work on while the objects of the host are destroyed, or one of them works.
TEST_F(Embedding, WorksWhenTheHostExits) {
  static const Embedding* test = nullptr;
  test = this;
  // The log of these tests is not kept so long.
  host.no_log = true;
  const auto work_at_exit = [] {
    std::atexit([] { _exit(test->works() ? 0 : 2); });
    std::exit(test->works() ? 0 : 1);
  };
  EXPECT_EXIT(work_at_exit(), testing::ExitedWithCode(0), "");
}

/// What the host prints then ends up in no file of the library.
TEST_F(Embedding, ClosedStreamsStayClosed) {
  const auto work_without_streams = [this] {
    int writable = 0;
    const auto look = [&writable] {
      for (int number = 0; number < 3; ++number) {
        const int flags = fcntl(number, F_GETFL);
        if (flags != -1 && (flags & O_ACCMODE) != O_RDONLY) ++writable;
      }
    };
    // SQLite opens "/dev/null" in their place, and leaves it so.
    const auto close_streams = [] {
      for (int number = 0; number < 3; ++number) close(number);
    };
    const bool worked = works(look, close_streams);
    _exit(!worked ? 1 : writable != 0 ? 2 : 0);
  };
  EXPECT_EXIT(work_without_streams(), testing::ExitedWithCode(0), "");
}

/// Files have the modes that the headers say, and are opened again by users other than root.
TEST_F(Embedding, TheMaskOfModesDoesNotMatter) {
  const std::string file = root() + "/masked";
  const mode_t before = umask(0777);
  const bool worked = works() && cs::export_to({{"weekly"}}, file);
  umask(before);
  EXPECT_TRUE(worked);
  struct stat status = {};
  for (const std::string& made : {file, state_dir() + "/restore.lock", lock_file()}) {
    ASSERT_EQ(stat(made.c_str(), &status), 0) << made;
    EXPECT_EQ(status.st_mode & 07777U, 0600U) << made;
  }
}

/// Of a user, as nothing there is open to others.
TEST_F(Embedding, TheEffectiveUserCounts) {
  shell("rm " + database());
  if (setresuid(65534, 0, 0) != 0) GTEST_SKIP();
  const auto list = cs::list();
  write_file(database(), "");
  const auto status = cs::status();
  ASSERT_EQ(setresuid(0, 0, 0), 0);
  EXPECT_TRUE(list) << shown(list.error());
  ASSERT_TRUE(status);
  for (const cs::Attention& attention : status->attention) {
    EXPECT_EQ(attention.text.find("does not exist"), std::string::npos) << attention.text;
  }
}

/// Names are read as UTF-8 whatever the locale is; the rest of it is the host's.
TEST_F(Embedding, TheLocaleOfTheHostStays) {
  const auto name = [] { return std::string(nl_langinfo_l(NL_LOCALE_NAME(LC_TIME), uselocale(nullptr))); };
  std::setlocale(LC_ALL, "C.UTF-8");
  Texts seen;
  EXPECT_EQ(cs::read_file({"weekly"}, config("gw1.conf"),
                          [&](std::string_view) {
                            seen.push_back(name());
                            return cs::Error{};
                          })
                .code,
            Code::ok);
  const locale_t after = uselocale(nullptr);
  std::setlocale(LC_ALL, "C");
  EXPECT_EQ(seen, (Texts{"C.UTF-8"}));
  EXPECT_EQ(after, LC_GLOBAL_LOCALE);
}

/// A host shares a cache between its connections: its lock on a table would not be waited for.
TEST_F(Embedding, ASharedCacheOfTheHostIsNotOurs) {
  sqlite3_enable_shared_cache(1);
  sqlite3* other = nullptr;
  sqlite3_open(database().c_str(), &other);
  sqlite3_exec(other, "begin immediate; update Config set load_time = 5", nullptr, nullptr, nullptr);
  const auto list = cs::list();
  sqlite3_exec(other, "rollback", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  sqlite3_enable_shared_cache(0);
  ASSERT_TRUE(list) << shown(list.error());
  EXPECT_EQ(list->size(), 1U);
}

/// Another program that cuts such a file off would end the host.
TEST_F(Embedding, NoFileIsMapped) {
  ASSERT_EQ(sqlite3_shutdown(), SQLITE_OK);
  ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_MMAP_SIZE, sqlite3_int64{1} << 20, sqlite3_int64{1} << 30),
            SQLITE_OK);
  const auto mapped = [this] {
    const auto opened = cs::Database::open(database(), milliseconds(100));
    sqlite3_int64 size = -1;
    if (opened) sqlite3_file_control(opened->get(), "main", SQLITE_FCNTL_MMAP_SIZE, &size);
    return size;
  }();
  sqlite3_shutdown();
  sqlite3_config(SQLITE_CONFIG_MMAP_SIZE, sqlite3_int64{0}, sqlite3_int64{1} << 30);
  EXPECT_EQ(mapped, 0);
}

}  // namespace
