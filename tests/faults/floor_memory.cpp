// Lets each allocation of each entry point of <confsave/snapshots.h> fail, one at a time: every malloc of
// the process, whoever makes it. With the address sanitizer, which keeps malloc for itself, `operator new`
// and SQLite's.
//
//   floor-memory [--full] [--seed=N]
//
// A call ends with std::bad_alloc, with an Error about memory or the system, or as if nothing had happened.
// It never calls something damaged that is whole. Nothing leaks, no file stays open, no lock is held. Who
// only reads changes no byte; of a change all is there or nothing. In short, every so many-th allocation.
//
// libarchive does not check some of its own allocations, and ends the process after others: these are
// counted.

#include <confsave/snapshots.h>
#include <dlfcn.h>
#include <kelmor/log.h>
#include <kelmor/system.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "memory_gateway.h"

#if defined(CONFSAVE_SANITIZED)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

namespace fs = std::filesystem;

namespace {

// The allocations --------------------------------------------------------------------------------------

/// Allocations before the one that fails; less than 0: none does.
std::atomic<long> countdown{-1};
std::atomic<long> alive{0};

/// What the process that made a strike leaves behind, whatever happens to it.
struct Strike {
  bool done = false;
  bool in_libarchive = false;
};
Strike* strike = nullptr;

/// Whether this thread does what the host does.
thread_local bool is_host = false;

bool strikes(const void* caller) {
  if (is_host || countdown < 0 || countdown-- != 0) return false;
  Dl_info origin = {};
  strike->done = true;
  strike->in_libarchive =
      dladdr(caller, &origin) != 0 && std::strstr(origin.dli_fname, "libarchive.so") != nullptr;
  errno = ENOMEM;
  return true;
}

void* counted(void* memory) {
  if (memory != nullptr) ++alive;
  return memory;
}

/// The host's own allocations do not count.
class Disarmed {
 public:
  Disarmed() : before_(is_host) { is_host = true; }
  Disarmed(const Disarmed&) = delete;
  Disarmed& operator=(const Disarmed&) = delete;
  ~Disarmed() { is_host = before_; }

 private:
  bool before_;
};

}  // namespace

#if defined(CONFSAVE_SANITIZED)

void* operator new(std::size_t size) {
  void* memory =
      strikes(__builtin_return_address(0)) ? nullptr : counted(std::malloc(size == 0 ? 1 : size));
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  if (memory != nullptr) --alive;
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

#else

// The names are the C library's. NOLINTBEGIN(*-declaration-parameter-name)
extern "C" {

void* c_malloc(std::size_t size) __asm__("__libc_malloc");
void* c_calloc(std::size_t count, std::size_t size) __asm__("__libc_calloc");
void* c_realloc(void* old, std::size_t size) __asm__("__libc_realloc");
void c_free(void* memory) __asm__("__libc_free");

void* malloc(std::size_t size) {
  return strikes(__builtin_return_address(0)) ? nullptr : counted(c_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) {
  return strikes(__builtin_return_address(0)) ? nullptr : counted(c_calloc(count, size));
}

void* realloc(void* old, std::size_t size) {
  if (strikes(__builtin_return_address(0))) return nullptr;
  void* memory = c_realloc(old, size);
  return old == nullptr ? counted(memory) : memory;
}

void free(void* memory) {
  if (memory != nullptr) --alive;
  c_free(memory);
}

}  // extern "C"
   // NOLINTEND(*-declaration-parameter-name)

#endif

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

using namespace ConfSave::snapshots;

std::optional<MemoryGateway> gateway;

sqlite3_mem_methods sqlite_memory;

void* sqlite_malloc(int size) {
  return strikes(__builtin_return_address(0)) ? nullptr : sqlite_memory.xMalloc(size);
}
void* sqlite_realloc(void* old, int size) {
  return strikes(__builtin_return_address(0)) ? nullptr : sqlite_memory.xRealloc(old, size);
}

void take_over_sqlite() {
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &sqlite_memory);
  sqlite3_mem_methods methods = sqlite_memory;
  methods.xMalloc = sqlite_malloc;
  methods.xRealloc = sqlite_realloc;
  sqlite3_config(SQLITE_CONFIG_MALLOC, &methods);
}

// The entry points -------------------------------------------------------------------------------------

/// How a call ended, in memory that is there already.
struct Ending {
  char text[65536] = {};
  bool is_value = false;
  Code code = Code::ok;

  void fail(const Error& error) {
    code = error.code;
    std::snprintf(text, sizeof text, "%d %s: %s", static_cast<int>(error.code), error.path.c_str(),
                  error.text.c_str());
  }

  void add(const std::string& line) {
    is_value = true;
    const std::size_t size = std::strlen(text);
    std::snprintf(text + size, sizeof text - size, "%s\n", line.c_str());
  }
};

template <class Value, class Show>
void tell(Ending& ending, const Result<Value>& result, Show show) {
  const Disarmed own;
  if (result) {
    ending.is_value = true;
    show(*result);
  } else {
    ending.fail(result.error());
  }
}

void tell(Ending& ending, const Error& error) {
  const Disarmed own;
  ending.is_value = error.code == Code::ok;
  if (error.code != Code::ok) ending.fail(error);
}

std::string shown(const Snapshot& snapshot) {
  return snapshot.config.name + " " + snapshot.comment + (snapshot.pinned ? "!" : "");
}

/// A file with the live configuration as the snapshot "daily".
std::string exported() { return gateway->root() / "exported"; }

/// What a call may change.
enum Changes { kNothing, kNotes, kRow };

struct Entry {
  const char* name;
  Changes changes;
  std::function<void(Ending&)> run;
  Key row = {};  ///< with kRow, the one that it may delete or replace
};

std::function<void(const Differences&)> differences(Ending& ending) {
  return [&ending](const Differences& found) {
    for (const Difference& difference : found) ending.add(difference.path);
  };
}

const std::vector<Entry> kEntries{
    {"list", kNothing,
     [](Ending& ending) {
       tell(ending, list(), [&](const Snapshots& found) {
         for (const Snapshot& snapshot : found) ending.add(shown(snapshot));
       });
     }},
    {"find", kNothing,
     [](Ending& ending) {
       Query query;
       query.pattern = "dail*";
       tell(ending, find(query), [&](const Snapshot& found) { ending.add(shown(found)); });
     }},
    {"members", kNothing,
     [](Ending& ending) {
       tell(ending, members({"daily"}), [&](const Members& found) {
         for (const Member& member : found) ending.add(member.path + std::to_string(member.sha256[0]));
       });
     }},
    {"compare with live", kNothing,
     [](Ending& ending) { tell(ending, compare({"daily"}, Live{}), differences(ending)); }},
    {"compare two", kNothing,
     [](Ending& ending) { tell(ending, compare({"daily"}, Id{"weekly"}), differences(ending)); }},
    {"verify", kNothing,
     [](Ending& ending) {
       tell(ending, verify({"daily"}), [&](const Verdict& found) {
         ending.add(std::to_string(static_cast<int>(found.state)));
         for (const std::string& problem : found.problems) ending.add(problem);
       });
     }},
    {"note", kNotes, [](Ending& ending) { tell(ending, note({"daily"}, "a comment")); }},
    {"pin", kNotes, [](Ending& ending) { tell(ending, pin({"weekly"}, true)); }},
    {"status", kNothing,
     [](Ending& ending) {
       tell(ending, status(), [&](const Status& found) {
         for (const Attention& attention : found.attention) ending.add(attention.code);
         ending.add(std::to_string(found.snapshots));
       });
     }},
    {"prune, dry", kNothing,
     [](Ending& ending) {
       PruneOptions options;
       options.keep = 1;
       options.pattern = "*";
       options.dry_run = true;
       tell(ending, prune(options), [&](const Pruned& found) {
         for (const Victim& victim : found.deleted) ending.add(shown(victim.snapshot));
       });
     }},
    {"export", kNothing,
     [](Ending& ending) {
       const auto sink = [](std::string_view) { return Error{}; };
       tell(ending, export_to({{"daily"}}, sink), [&](const Exported& done) {
         for (const Snapshot& snapshot : done.snapshots) ending.add(shown(snapshot));
       });
     }},
    {"import",
     kRow,
     [](Ending& ending) {
       ImportOptions options;
       options.overwrite = true;
       tell(ending, import_from(exported(), options), [&](const Imported& done) {
         for (const Snapshot& snapshot : done.snapshots) ending.add(snapshot.config.name);
       });
     },
     {"daily", ConfSave::CURRENT_VERSION}},
    {"save",
     kRow,
     [](Ending& ending) {
       SaveOptions options;
       options.overwrite = true;
       tell(ending, ConfSave::snapshots::save({"daily"}, options),
            [&](const Saved& saved) { ending.add(std::to_string(static_cast<int>(saved.outcome))); });
     },
     {"daily", ConfSave::CURRENT_VERSION}},
    {"remove",
     kRow,
     [](Ending& ending) { tell(ending, ConfSave::snapshots::remove({"daily"})); },
     {"daily", ConfSave::CURRENT_VERSION}},
};

// The strikes ------------------------------------------------------------------------------------------

long failures = 0;

void require(bool condition, const Entry& entry, long number, const std::string& what) {
  if (condition) return;
  std::cerr << "floor-memory: " << entry.name << ", allocation " << number << ": " << what << std::endl;
  ++failures;
}

std::string read(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

fs::path notes_file() { return gateway->root() / "state/notes.db"; }

void restore() {
  gateway->restore();
  for (const char* name : {"notes.db-journal", "storage.db-reserve"})
    fs::remove(gateway->root() / "state" / name);
  fs::copy_file(gateway->root() / "kept-notes.db", notes_file(), fs::copy_options::overwrite_existing);
}

/// How a call that nothing disturbs ends.
Ending undisturbed;

void call(const Entry& entry, long number, Ending& ending) {
  try {
    countdown = number;
    entry.run(ending);
  } catch (const std::bad_alloc&) {
    ending.code = Code::failed;
    std::strcpy(ending.text, "bad_alloc");
  }
  countdown = -1;
}

/// Memory, or what a system call or SQLite said about it; never something about the snapshot.
bool is_clear(const Ending& ending) {
  return ending.code == Code::failed || ending.code == Code::no_storage;
}

/// Each row is the one of before, or what the call may make of it.
void check_rows(const Entry& entry, long number, const Ending& ending) {
  const Rows rows = gateway->rows();
  for (const auto& [key, old] : gateway->stored()) {
    const auto found = rows.find(key);
    const bool same =
        found != rows.end() && found->second.keybase == old.keybase && found->second.etc == old.etc;
    const bool may_change = entry.changes == kRow && key == entry.row;
    if (!same && found != rows.end()) {
      require(gateway->is_new(found->second), entry, number, "the row '" + key.first + "' is not whole");
    }
    require(same || may_change, entry, number, "the row '" + key.first + "' is not what it was");
    require(!same || !may_change || !ending.is_value, entry, number, "nothing was done");
  }
}

void check(const Entry& entry, long number, const Ending& ending) {
  require(!ending.is_value || std::strcmp(ending.text, undisturbed.text) == 0, entry, number,
          std::string("answers something else: ") + ending.text);
  require(ending.is_value || is_clear(ending), entry, number, std::string("says: ") + ending.text);
  require(fs::is_empty(gateway->root() / "temp"), entry, number, "a temporary file stays");
  require(gateway->open_files() == 0, entry, number, "a file stays open");
  require(gateway->lock_is_free(), entry, number, "the lock stays held");
  require(gateway->is_sound(), entry, number, "the storage is damaged");
  require(entry.changes != kNothing || read(notes_file()) == read(gateway->root() / "kept-notes.db"), entry,
          number, "the notes changed");
  require(entry.changes == kRow ||
              read(gateway->root() / "state/storage.db") == read(gateway->root() / "kept.db"),
          entry, number, "the storage changed");
  check_rows(entry, number, ending);
  // The next call finds nothing amiss.
  Ending next;
  call(entry, -1, next);
  const bool is_gone = entry.changes == kRow && next.code == Code::not_found;
  require(next.is_value || is_gone, entry, number, std::string("the next call says: ") + next.text);
}

/// In a process of its own, because libarchive can end it.
[[noreturn]] void call_with_strike(const Entry& entry, long number) {
  static Ending ending;
  failures = 0;
  const long alive_before = alive;
  const sqlite3_int64 sqlite_before = sqlite3_memory_used();
  call(entry, number, ending);
  const long leaked = alive - alive_before;
  const sqlite3_int64 leaked_by_sqlite = sqlite3_memory_used() - sqlite_before;
  require(leaked <= 0, entry, number, std::to_string(leaked) + " blocks leak: " + ending.text);
  require(leaked_by_sqlite == 0, entry, number, std::to_string(leaked_by_sqlite) + " bytes of SQLite leak");
  check(entry, number, ending);
  _exit(failures == 0 ? 0 : 2);
}

long count = 0;
long ended_in_libarchive = 0;

/// False when there are fewer allocations than that.
bool fail_one(const Entry& entry, long number) {
  restore();
  *strike = {};
  const pid_t child = fork();
  if (child == 0) call_with_strike(entry, number);
  int status = 0;
  waitpid(child, &status, 0);
  const bool ended = !WIFEXITED(status) || WEXITSTATUS(status) == 1;
  if (ended && strike->in_libarchive) {
    ++ended_in_libarchive;
  } else if (status != 0) {
    require(!ended, entry, number, "ends the process with " + std::to_string(status));
    failures += ended ? 0 : 1;
  }
  count += strike->done ? 1 : 0;
  return strike->done;
}

int run(bool full, unsigned seed) {
  std::mt19937 source(seed);
  for (const Entry& entry : kEntries) {
    // Twice, so that what a library keeps for ever is there.
    for (int i = 0; i < 2; ++i) {
      restore();
      undisturbed = Ending();
      call(entry, -1, undisturbed);
    }
    require(undisturbed.is_value, entry, -1, undisturbed.text);
    const long stride = full ? 1 : kSanitized ? 180 : 60;  // Sanitizers make a strike four times as dear.
    for (long number = static_cast<long>(source()) % stride; fail_one(entry, number); number += stride) {
    }
  }
  std::cout << count << (kSanitized ? " of operator new and of SQLite's allocations" : " allocations")
            << " failed, in " << kEntries.size() << " entry points; libarchive ended the process in "
            << ended_in_libarchive << "; seed " << seed << "\n";
  return failures == 0 && count > 100 ? 0 : 1;
}

void prepare() {
  void* shared = mmap(nullptr, sizeof(Strike), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) std::abort();
  strike = new (shared) Strike;
  // The C library keeps the modules that know users.
  // cppcheck-suppress getpwuidCalled ; one thread only
  static_cast<void>(getpwuid(123456789));
  if (note({"daily"}, "before").code != Code::ok) std::abort();
  fs::copy_file(notes_file(), gateway->root() / "kept-notes.db");
  SaveOptions options;
  options.overwrite = true;
  if (!ConfSave::snapshots::save({"daily"}, options) || !export_to({{"daily"}}, exported())) std::abort();
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
  if (kSanitized) take_over_sqlite();
  char name[] = "/mnt/confsave-memory-XXXXXX";
  gateway.emplace(mkdtemp(name));
  prepare();
  const int result = run(full, seed);
  fs::remove_all(gateway->root());
  return result;
}
