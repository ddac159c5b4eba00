// Lets each allocation of each entry point fail, one at a time: every `operator new`, and every one of
// SQLite.
//
//   memory [--full] [--seed=N]
//
// Nothing crashes or leaks, no statement, connection or file stays open, no lock is held, and what promises
// to throw nothing throws nothing. Every row is the old one, or a new one whose archives unpack to the live
// configuration; every file is the old or the stored one; and who reports no failure has done what is done
// undisturbed. In short, every so many-th allocation.

#include <confsave.h>
#include <dlfcn.h>
#include <kelmor/log.h>
#include <kelmor/system.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <new>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "allocations.h"
#include "memory_gateway.h"

namespace fs = std::filesystem;

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

constexpr long kNever = 1000000;

// The gateway ------------------------------------------------------------------------------------------

std::optional<MemoryGateway> gateway;

// The entry points -------------------------------------------------------------------------------------

/// What may happen to rows.
enum Change : unsigned { kNothing = 0, kAdds = 1, kReplaces = 2, kLoses = 4, kStamps = 8 };

/// What a query found, which is to be the same each time.
std::size_t found = 0;

struct Entry {
  const char* name;
  bool may_throw;       ///< may it throw bad_alloc
  const char* message;  ///< what it says of any other end
  std::function<void()> run;
  unsigned change = kNothing;
  const char* row = "";   ///< how the names and versions of the rows that change begin
  const char* loss = "";  ///< the quirk by which one may be lost, or loaded for another
  bool loads_into_place =
      false;  ///< it loads into the live configuration; else, if it stamps, into the target
  const char* typed = "n\nYes, do as I say\n";
  bool may_leave = false;  ///< what it cannot delete it logs and leaves
};

constexpr const char* kNotSaved = "Unknown error (while saving configuration)!\n";
constexpr const char* kNotLoaded = "Unknown error (while loading configuration)!\n";

std::vector<Entry> of_storage(const char* target) {
  return {
      {"Storage", true, "", [] { Storage storage; }},
      {"Exists", true, "", [] { found = Storage().Exists("weekly", 0) ? 1 : 0; }},
      {"Create", true, "", [] { Storage().Create("new", conf_full, 0); }, kAdds, "new"},
      {"Update", true, "", [] { Storage().Update("daily", conf_part, CURRENT_VERSION); },
       kReplaces | kLoses, "daily", "Q64"},
      {"Delete", true, "", [] { Storage().Delete("daily", CURRENT_VERSION); }, kLoses, "daily"},
      {"List", true, "", [] { found = Storage().List(0, "name", true).size(); }},
      {"FindMatching", true, "", [] { found = Storage().FindMatching("*", 0, true).size(); }},
      {"Load", true, "", [target] { Storage().Load("daily", target, CURRENT_VERSION, true); }, kStamps,
       "daily"},
  };
}

std::vector<Entry> of_checked_operations(const char* target) {
  return {
      {"save", true, kNotSaved, [] { save("daily", conf_full, 0, true); }, kReplaces | kLoses, "daily",
       "Q64"},
      {"save of a new name", true, kNotSaved, [] { save("fresh", conf_full, 0, false); }, kAdds, "fresh"},
      {"load", false, kNotLoaded, [target] { load("daily", target, CURRENT_VERSION, true); }, kStamps,
       "daily"},
      {"load of one of two", false, kNotLoaded, [target] { load("weekly", target, 0, true); }, kStamps,
       "weekly", "Q20"},
      {"load with questions", false, kNotLoaded, [target] { load("daily", target, 0, false); }, kStamps,
       "daily"},
  };
}

std::vector<Entry> of_app() {
  return {
      {"App::lst", false, "Failed to open storage.\n", [] { App::lst(); }},
      {"App::save", false, "Failed to save configuration 'fresh'.\n", [] { App::save("fresh", conf_full); },
       kAdds, "fresh"},
      {"App::save over a row", false, "Failed to save configuration 'weekly'.\n",
       [] { App::save("weekly", conf_full); }, kReplaces | kLoses, "weekly 0", "Q44", false, "y\n"},
      {"App::del", true, "", [] { App::del("weekly"); }, kLoses, "weekly 0"},
      {"App::load", true, "Unknown error while restoring configuration.\n", [] { App::load("weekly"); },
       kStamps, "weekly 0", "", true},
  };
}

std::vector<Entry> of_autosaves() {
  return {
      {"AutoSave", true, "", [] { AutoSave("", conf_full, 2); }, kAdds | kLoses, "autosave-", "", false, "",
       true},
      {"CheckOld", false, "", [] { found = CheckOld() ? 1 : 0; }},
      {"save_if_unique", true, "",
       [] {
         Storage storage;
         save_if_unique(storage, "fresh", conf_part);
       },
       kAdds, "fresh"},
      {"CleanAutosaves", true, "",
       [] {
         Storage storage;
         CleanAutosaves(storage, 1);
       },
       kLoses, "autosave-", "", false, "", true},
  };
}

std::vector<Entry> of_files_and_text(const std::string& target) {
  return {
      {"Archive", true, "",
       [&target] {
         Archive packed(conf_full, (gateway->root() / "config/").string());
         packed.Create();
         std::vector<char> etc;
         std::vector<char> keybase;
         packed.Fetch(etc, keybase);
         found = etc.size() * keybase.size();
         Archive stored(conf_full, target);
         stored.Create(etc, keybase);
       }},
      {"TempFile", true, "",
       [] {
         TempFile file;
         file.create();
         file.remove();
         file.create();
       }},
      {"files", true, "",
       [&target] {
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
}

std::vector<Entry> entries(const std::string& target) {
  std::vector<Entry> all;
  for (const auto& group : {of_storage(target.c_str()), of_checked_operations(target.c_str()), of_app(),
                            of_autosaves(), of_files_and_text(target)}) {
    all.insert(all.end(), group.begin(), group.end());
  }
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
  explicit Streams(const char* typed) : in_(typed) {
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

/// How the call ended: with an exception of a kind, or with what it said.
struct Outcome {
  bool threw_bad_alloc = false;
  bool threw_other = false;

  void keep(const std::string& said) { said.copy(said_, sizeof said_); }
  std::string_view said() const { return said_; }

  /// Whether somebody was told that something went wrong.
  bool is_reported() const {
    if (threw_bad_alloc || threw_other) return true;
    static constexpr const char* kWords[] = {"rror", "ailed", "No such", "abort", "Abort"};
    return std::any_of(std::begin(kWords), std::end(kWords),
                       [this](const char* word) { return said().find(word) != std::string::npos; });
  }

 private:
  char said_[8192] = {};  ///< no block of its own, which would look like a leak
};

Outcome call(const Entry& entry, Countdown& countdown, long number) {
  Outcome outcome;
  Streams streams(entry.typed);
  found = 0;
  countdown = {number, false};
  try {
    entry.run();
  } catch (const std::bad_alloc&) {
    outcome.threw_bad_alloc = true;
  } catch (...) {
    outcome.threw_other = true;
  }
  countdown.left = -1;
  outcome.keep(streams.said());
  return outcome;
}

/// What an undisturbed call leaves.
struct Effect {
  std::size_t rows = 0;
  std::size_t found = 0;
};

std::map<std::string, long> losses;
long stored_anew = 0;

/// Each row is the one of before, or what the entry may make of it.
void check_rows(const Entry& entry, const char* kind, long number) {
  Rows rows = gateway->rows();
  const Rows& before = gateway->stored();
  const auto may = [&](const Key& key, Change change) {
    const std::string row = key.first + " " + std::to_string(key.second);
    return (entry.change & change) != 0 && row.rfind(entry.row, 0) == 0;
  };
  for (const auto& [key, old] : before) {
    const auto found_row = rows.find(key);
    if (found_row == rows.end()) {
      require(may(key, kLoses), entry, kind, number, "the row '" + key.first + "' is lost");
      if (entry.loss[0] != '\0') ++losses[entry.loss];
      continue;
    }
    const Row& now = found_row->second;
    const bool same = now.type == old.type && now.keybase == old.keybase && now.etc == old.etc;
    const bool stamped = now.load_time != old.load_time;
    if (stamped && entry.loss[0] != '\0') {
      require(sql.struck, entry, kind, number, "one of two was loaded");
      ++losses[entry.loss];
    }
    if (!same || (stamped && !may(key, kStamps))) {
      require(may(key, kReplaces) && gateway->is_new(now), entry, kind, number,
              "the row '" + key.first + "' is neither the old nor a new one");
      ++stored_anew;
    }
    rows.erase(found_row);
  }
  for (const auto& [key, row] : rows) {
    require(may(key, kAdds) && gateway->is_new(row), entry, kind, number,
            "the row '" + key.first + "' is not whole or not expected");
    ++stored_anew;
  }
}

void check_files(const Entry& entry, const char* kind, long number, const Outcome& outcome) {
  const bool into_target = (entry.change & kStamps) != 0 && !entry.loads_into_place;
  std::string flaw = gateway->flaw_of_live_files(entry.loads_into_place);
  require(flaw.empty(), entry, kind, number, flaw);
  flaw = gateway->flaw_of_target(into_target, into_target && !outcome.is_reported());
  require(flaw.empty(), entry, kind, number, flaw);
}

void check_report(const Entry& entry, const char* kind, long number, const Outcome& outcome) {
  if (!cpp.struck || entry.message[0] == '\0' || outcome.threw_bad_alloc) return;
  const std::string message = entry.message;
  const bool ended =
      outcome.said().size() >= message.size() &&
      outcome.said().compare(outcome.said().size() - message.size(), message.size(), message) == 0;
  // Logs and SQLite's callback swallow one or the other: then the operation went on.
  const bool swallowed = outcome.said().find("rror") == std::string::npos;
  require(ended || swallowed, entry, kind, number, "said: " + std::string(outcome.said()));
}

void check_host(const Entry& entry, const char* kind, long number) {
  require(gateway->open_files() == 0, entry, kind, number, "a file stays open");
  require(gateway->lock_is_free(), entry, kind, number, "the lock stays held");
  require(gateway->is_sound(), entry, kind, number, "the database is damaged");
  require(fs::is_empty(gateway->root() / "temp"), entry, kind, number, "a temporary file stays");
}

/// False when there are fewer allocations than that. Then `effect` is what the call had.
bool fail_one(const Entry& entry, const char* kind, Countdown& countdown, long number, Effect& effect) {
  gateway->restore();
  cpp.struck = sql.struck = false;
  const sqlite3_int64 sqlite_before = sqlite3_memory_used();
  const long alive_before = alive;
  {
    const Outcome outcome = call(entry, countdown, number);
    require(alive == alive_before, entry, kind, number,
            std::to_string(alive - alive_before) + " blocks leak");
    require(sqlite3_memory_used() == sqlite_before, entry, kind, number,
            std::to_string(sqlite3_memory_used() - sqlite_before) + " bytes of SQLite leak");
    require(!outcome.threw_other || &countdown == &sql, entry, kind, number, "threw something else");
    require(entry.may_throw || !outcome.threw_bad_alloc, entry, kind, number, "threw bad_alloc");
    check_report(entry, kind, number, outcome);
    check_files(entry, kind, number, outcome);
    if (!countdown.struck) effect = {gateway->rows().size(), found};
    // A statement that SQLite refuses is in the log only.
    const bool went_on = &countdown == &cpp && !outcome.is_reported();
    const std::size_t rows = gateway->rows().size();
    const bool same = rows == effect.rows || (entry.may_leave && rows > effect.rows);
    require(!went_on || (same && found == effect.found), entry, kind, number,
            "reported nothing and did something else");
  }
  check_rows(entry, kind, number);
  check_host(entry, kind, number);
  return countdown.struck;
}

long fail_all(const Entry& entry, const char* kind, Countdown& countdown, long stride, long first) {
  Effect effect;
  fail_one(entry, "undisturbed", countdown, kNever, effect);
  long count = 0;
  for (long number = first; fail_one(entry, kind, countdown, number, effect); number += stride) ++count;
  return count;
}

int run(bool full, unsigned seed) {
  std::mt19937 source(seed);
  long cpp_count = 0;
  long sql_count = 0;
  const std::string target = gateway->target();
  const std::vector<Entry> all = entries(target);
  for (const Entry& entry : all) {
    const auto fail = [&](const char* kind, Countdown& countdown, long stride) {
      if (full) return fail_all(entry, kind, countdown, 1, 0);
      return fail_all(entry, kind, countdown, stride, static_cast<long>(source()) % stride);
    };
    cpp_count += fail("operator new", cpp, 5);
    sql_count += fail("SQLite's allocation", sql, 23);
  }
  std::cout << cpp_count << " of operator new and " << sql_count << " of SQLite's allocations failed, in "
            << all.size() << " entry points; " << stored_anew << " rows stored anew, all whole";
  for (const auto& [quirk, count] : losses) std::cout << ", " << count << " exceptions of quirk " << quirk;
  std::cout << "; seed " << seed << "\n";
  return failures == 0 && cpp_count > 20 && sql_count > 50 && stored_anew > 20 ? 0 : 1;
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
  gateway.emplace(mkdtemp(name));
  const int result = run(full, seed);
  fs::remove_all(gateway->root());
  return result;
}
