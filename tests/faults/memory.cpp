// Lets each allocation of each entry point fail, one at a time: every `operator new`, and every one of
// SQLite.
//
//   memory [--full] [--seed=N]
//
// Nothing crashes or leaks, no statement, connection or file stays open, no lock is held, and what promises
// to throw nothing throws nothing. In short, every so many-th allocation.

#include <confsave.h>
#include <dlfcn.h>
#include <kelmor/log.h>
#include <kelmor/system.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

// The allocations --------------------------------------------------------------------------------------

/// Counts allocations down to the one that fails.
struct Countdown {
  long left = -1;
  bool struck = false;

  bool strikes() {
    if (left < 0 || left-- != 0) return false;
    struck = true;
    return true;
  }
};

Countdown cpp;
Countdown sql;
long alive = 0;

sqlite3_mem_methods sqlite_memory;

void* sqlite_malloc(int size) { return sql.strikes() ? nullptr : sqlite_memory.xMalloc(size); }
void* sqlite_realloc(void* old, int size) {
  return sql.strikes() ? nullptr : sqlite_memory.xRealloc(old, size);
}

void take_over_sqlite() {
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &sqlite_memory);
  sqlite3_mem_methods methods = sqlite_memory;
  methods.xMalloc = sqlite_malloc;
  methods.xRealloc = sqlite_realloc;
  sqlite3_config(SQLITE_CONFIG_MALLOC, &methods);
}

/// The host's own allocations do not count.
class Disarmed {
 public:
  Disarmed() : cpp_(cpp.left), sql_(sql.left) { cpp.left = sql.left = -1; }
  Disarmed(const Disarmed&) = delete;
  Disarmed& operator=(const Disarmed&) = delete;
  ~Disarmed() {
    cpp.left = cpp_;
    sql.left = sql_;
  }

 private:
  long cpp_;
  long sql_;
};

}  // namespace

void* operator new(std::size_t size) {
  if (cpp.strikes()) throw std::bad_alloc();
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  ++alive;
  return memory;
}

void operator delete(void* memory) noexcept {
  if (memory != nullptr) --alive;
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

// The host ---------------------------------------------------------------------------------------------

int my_system(const char* format, ...) {
  const Disarmed own;
  char command[65536];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(command, sizeof command, format, arguments);
  va_end(arguments);
  static const auto run = reinterpret_cast<int (*)(const char*, ...)>(dlsym(RTLD_NEXT, "my_system"));
  return run("%s", command);
}

const KorvLogProps* KorvLog_GetProps_cl_module(int) {
  static const KorvLogProps props{4, nullptr, nullptr, nullptr, nullptr, nullptr};
  return &props;
}

void slput(int, const char*, ...) {}

namespace {

using namespace ConfSave;

// The gateway ------------------------------------------------------------------------------------------

fs::path root;

void write(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream(file) << text;
}

void make_gateway() {
  for (const char* name : {"user/gateway.conf", "gw1.conf", "user/config.db", "user/config.idx"}) {
    write(root / "config" / name, "content\n");
  }
  write("/mnt/main/etc/failover.ini", "content\n");
  for (const char* name : {"state", "scratch"}) fs::create_directories(root / name);
  setenv("KELMOR_CONFIG_PATH", (root / "config").c_str(), 1);
  setenv("KELMOR_DYNAMIC_DIR", (root / "state").c_str(), 1);
  setenv("KELMOR_TEMP_DIR", (root / "scratch").c_str(), 1);
}

void make_rows() {
  Storage storage;
  for (const char* name : {"weekly", "autosave-1", "autosave-2"}) {
    storage.Create(name, conf_full, 0);
    storage.Create(name, conf_full, CURRENT_VERSION);
  }
  storage.Create("daily", conf_full, CURRENT_VERSION);
  fs::copy_file(root / "state/storage.db", root / "kept.db");
}

void restore_rows() {
  fs::remove(root / "state/storage.db-journal");
  fs::copy_file(root / "kept.db", root / "state/storage.db", fs::copy_options::overwrite_existing);
}

// The entry points -------------------------------------------------------------------------------------

/// May it throw bad_alloc, and which message tells of any other end?
struct Entry {
  const char* name;
  bool may_throw;
  const char* message;
  std::function<void()> run;
};

const std::vector<Entry>& entries() {
  static const std::string target = (root / "target/").string();
  static const std::vector<Entry> all{
      {"Storage", true, "", [] { Storage storage; }},
      {"Exists", true, "", [] { Storage().Exists("weekly", 0); }},
      {"Create", true, "", [] { Storage().Create("new", conf_full, 0); }},
      {"Update", true, "", [] { Storage().Update("weekly", conf_part, 0); }},
      {"Delete", true, "", [] { Storage().Delete("weekly", 0); }},
      {"List", true, "", [] { Storage().List(0, "name", true); }},
      {"FindMatching", true, "", [] { Storage().FindMatching("*", 0, true); }},
      {"Load", true, "", [] { Storage().Load("weekly", target.c_str(), 0, true); }},
      {"save", true, "Unknown error (while saving configuration)!\n",
       [] { save("daily", conf_full, 0, true); }},
      {"save of a new name", true, "Unknown error (while saving configuration)!\n",
       [] { save("fresh", conf_full, 0, false); }},
      {"load", false, "Unknown error (while loading configuration)!\n",
       [] { load("weekly", target.c_str(), CURRENT_VERSION, true); }},
      {"App::lst", false, "Failed to open storage.\n", [] { App::lst(); }},
      {"App::save", false, "Failed to save configuration 'fresh'.\n",
       [] { App::save("fresh", conf_full); }},
      {"App::save over a row", false, "Failed to save configuration 'weekly'.\n",
       [] { App::save("weekly", conf_full); }},
      {"App::del", true, "", [] { App::del("weekly"); }},
      {"App::load", true, "Unknown error while restoring configuration.\n", [] { App::load("weekly"); }},
      {"AutoSave", true, "", [] { AutoSave("", conf_full, 2); }},
      {"CheckOld", false, "", [] { CheckOld(); }},
      {"save_if_unique", true, "",
       [] {
         Storage storage;
         save_if_unique(storage, "fresh", conf_part);
       }},
      {"CleanAutosaves", true, "",
       [] {
         Storage storage;
         CleanAutosaves(storage, 1);
       }},
      {"load with questions", false, "Unknown error (while loading configuration)!\n",
       [] { load("daily", target.c_str(), 0, false); }},
      {"Archive", true, "",
       [] {
         Archive packed(conf_full, (root / "config/").string());
         packed.Create();
         std::vector<char> etc;
         std::vector<char> keybase;
         packed.Fetch(etc, keybase);
         Archive stored(conf_full, target);
         stored.Create(etc, keybase);
         stored.Extract(nullptr);
       }},
      {"TempFile", true, "",
       [] {
         TempFile file;
         file.create();
         file.remove();
         file.create();
       }},
      {"files", true, "",
       [] {
         IsConfigDbExist(target.c_str());
         RemoveConfigDb(target.c_str());
       }},
      {"time_format", true, "", [] { time_format(1488377100); }},
      {"vers_convert", true, "", [] { Config(0).vers_convert("4.5.4"); }},
      {"text of a record", true, "",
       [] {
         std::ostringstream text;
         text << Config(CURRENT_VERSION);
       }},
      {"ask_user_yesno", true, "", [] { ask_user_yesno("Go on with a question that is long? ", false); }},
  };
  return all;
}

/// What is said, in memory that is there already.
class Paper : public std::streambuf {
 public:
  Paper() { setp(text_, text_ + sizeof text_); }
  std::string text() const { return {pbase(), pptr()}; }

 private:
  char text_[4096] = {};
};

/// Standard streams of one call.
class Streams {
 public:
  Streams() : in_("n\nYes, do as I say\n") {
    before_[0] = std::cin.rdbuf(in_.rdbuf());
    before_[1] = std::cout.rdbuf(&out_);
    before_[2] = std::cerr.rdbuf(&err_);
  }
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;
  ~Streams() {
    std::cin.rdbuf(before_[0]);
    std::cout.rdbuf(before_[1]);
    std::cerr.rdbuf(before_[2]);
    std::cin.clear();
    std::cout.clear();
    std::cerr.clear();
  }

  std::string said() const { return out_.text() + err_.text(); }

 private:
  std::istringstream in_;
  Paper out_;
  Paper err_;
  std::streambuf* before_[3] = {};
};

long failures = 0;

void require(bool condition, const Entry& entry, const char* kind, long number, const std::string& what) {
  if (condition) return;
  std::cerr << "memory: " << entry.name << ", " << kind << " " << number << ": " << what << "\n";
  ++failures;
}

bool lock_is_free() {
  sqlite3* db = nullptr;
  sqlite3_open((root / "state/storage.db").c_str(), &db);
  const bool is_free =
      sqlite3_exec(db, "begin exclusive; rollback", nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return is_free;
}

bool is_sound() {
  sqlite3* db = nullptr;
  sqlite3_open((root / "state/storage.db").c_str(), &db);
  std::string answer;
  const auto take = [](void* context, int, char** values, char**) {
    *static_cast<std::string*>(context) += values[0];
    return 0;
  };
  sqlite3_exec(db, "pragma integrity_check", take, &answer, nullptr);
  sqlite3_close(db);
  return answer == "ok";
}

long open_files() {
  long count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone).string().rfind(root.string(), 0) == 0) ++count;
  }
  return count;
}

/// How the call ended: with an exception of a kind, or with what it said.
struct Outcome {
  bool threw_bad_alloc = false;
  bool threw_other = false;
  std::string said;
};

Outcome call(const Entry& entry, Countdown& countdown, long number) {
  Outcome outcome;
  Streams streams;
  countdown = {number, false};
  try {
    entry.run();
  } catch (const std::bad_alloc&) {
    outcome.threw_bad_alloc = true;
  } catch (...) {
    outcome.threw_other = true;
  }
  countdown.left = -1;
  outcome.said = streams.said();
  return outcome;
}

/// False when there are fewer allocations than that.
bool fail_one(const Entry& entry, const char* kind, Countdown& countdown, long number) {
  restore_rows();
  fs::remove_all(root / "target");
  fs::create_directory(root / "target");
  write(root / "config/user/config.db", "content\n");
  write(root / "config/user/config.idx", "content\n");
  const sqlite3_int64 sqlite_before = sqlite3_memory_used();
  const long alive_before = alive;
  {
    const Outcome outcome = call(entry, countdown, number);
    require(!outcome.threw_other || &countdown == &sql, entry, kind, number, "threw something else");
    require(entry.may_throw || !outcome.threw_bad_alloc, entry, kind, number, "threw bad_alloc");
    if (&countdown == &cpp && countdown.struck && entry.message[0] != '\0' && !outcome.threw_bad_alloc) {
      const std::string message = entry.message;
      const bool ended =
          outcome.said.size() >= message.size() &&
          outcome.said.compare(outcome.said.size() - message.size(), message.size(), message) == 0;
      // Logs and SQLite's callback swallow one or the other: then the operation went on.
      const bool swallowed = outcome.said.find("rror") == std::string::npos;
      require(ended || swallowed, entry, kind, number, "said: " + outcome.said);
    }
  }
  require(alive == alive_before, entry, kind, number,
          std::to_string(alive - alive_before) + " blocks leak");
  require(sqlite3_memory_used() == sqlite_before, entry, kind, number,
          std::to_string(sqlite3_memory_used() - sqlite_before) + " bytes of SQLite leak");
  require(open_files() == 0, entry, kind, number, "a file stays open");
  require(lock_is_free(), entry, kind, number, "the lock stays held");
  require(is_sound(), entry, kind, number, "the database is damaged");
  require(fs::is_empty(root / "scratch"), entry, kind, number, "a temporary file stays");
  return countdown.struck;
}

long fail_all(const Entry& entry, const char* kind, Countdown& countdown, long stride, long first) {
  long count = 0;
  for (long number = first; fail_one(entry, kind, countdown, number); number += stride) ++count;
  return count;
}

int run(bool full, unsigned seed) {
  std::mt19937 source(seed);
  long cpp_count = 0;
  long sql_count = 0;
  for (const Entry& entry : entries()) {
    fail_one(entry, "warming up", cpp, 1000000);
    const auto fail = [&](const char* kind, Countdown& countdown, long stride) {
      if (full) return fail_all(entry, kind, countdown, 1, 0);
      return fail_all(entry, kind, countdown, stride, static_cast<long>(source()) % stride);
    };
    cpp_count += fail("operator new", cpp, 5);
    sql_count += fail("SQLite's allocation", sql, 23);
  }
  std::cout << cpp_count << " of operator new and " << sql_count << " of SQLite's allocations failed, in "
            << entries().size() << " entry points; seed " << seed << "\n";
  return failures == 0 && cpp_count > 20 && sql_count > 50 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("CONFSAVE_SANDBOX") == nullptr) {
    std::fputs("This fills /mnt/main/etc. Run it by script/faults or ctest.\n", stderr);
    return 125;
  }
  bool full = false;
  unsigned seed = 1;
  for (int i = 1; i < argc; ++i) {
    full = full || std::strcmp(argv[i], "--full") == 0;
    if (std::strncmp(argv[i], "--seed=", 7) == 0) seed = static_cast<unsigned>(std::stoul(argv[i] + 7));
  }
  take_over_sqlite();
  char name[] = "/mnt/confsave-memory-XXXXXX";
  root = mkdtemp(name);
  make_gateway();
  make_rows();
  const int result = run(full, seed);
  fs::remove_all(root);
  return result;
}
