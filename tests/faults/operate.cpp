// A host that performs one operation of the library, and meets with what the environment says:
//
//   operate VERB [ARGUMENT...]
//
//   FAULT_KILL_AT=N    is killed, with its whole process group, at step N
//   FAULT_KILL=host    … alone, its commands live on
//   FAULT_COUNT=FILE   writes the number of its steps there when it ends
//   FAULT_FSIZE=N      no command can write a file of more than N bytes
//   FAULT_COMMAND=TEXT FAULT_FSIZE, FAULT_SIGNAL and FAULT_BEFORE are for commands that begin so
//   FAULT_SIGNAL=N     gets signal N, with its whole process group, while a command runs
//   FAULT_SIGNAL_TO=commands  … the command alone gets it, with all its children
//   FAULT_DELAY=N      milliseconds from the beginning of the command to the signal, 20 by default
//   FAULT_BEFORE=LINE  is run before the command
//
// A step is the beginning and the end of each command, statement and log record.
//
// `save` and `typed-save` take a name and a type; `typed-save NAME TYPE if-changed` compares first.
//
// Prints "done" or what went wrong; exits with 0 or 1.
//
// `operate typed-load NAME [TARGET] [exact] [no-keep] [check=COMMAND]` restores by the typed library, and
// `operate typed-plan NAME [TARGET] [exact]` plans that. They print a line for each change and each
// warning. `operate typed-differences NAME [TARGET] [exact]` prints the plan in full.
//
// With within=SECONDS the restore is pending: `operate typed-confirm` keeps it, `operate typed-revert`
// takes it back, `operate typed-wait` does so when its time is up.
//
// `operate inspect` reads lines "STATE TARGET [NAME...]". For each it opens the storage of that state
// directory, lists it, loads the named rows, or all, into directories below TARGET, and lists it again. It
// prints a line for each row and a last one with a dot.

#include <confsave.h>
#include <confsave/snapshots.h>
#include <dlfcn.h>
#include <kelmor/log.h>
#include <kelmor/system.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace ConfSave;
using Arguments = std::vector<std::string>;

std::string setting(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

long number(const char* name, long otherwise) {
  const std::string text = setting(name);
  return text.empty() ? otherwise : std::strtol(text.c_str(), nullptr, 10);
}

long steps = 0;

void step() {
  static const long last = number("FAULT_KILL_AT", -1);
  if (++steps != last) return;
  kill(setting("FAULT_KILL") == "host" ? getpid() : 0, SIGKILL);
}

int trace(unsigned, void*, void*, void*) {
  step();
  return 0;
}

int watch(sqlite3* db, const char**, const sqlite3_api_routines*) {
  return sqlite3_trace_v2(db, SQLITE_TRACE_STMT | SQLITE_TRACE_PROFILE, trace, nullptr);
}

/// The limit on files while it lives. That it is reached is an error and no signal, to commands too.
class FileLimit {
 public:
  explicit FileLimit(long bytes) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = static_cast<rlim_t>(bytes);
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  FileLimit(const FileLimit&) = delete;
  FileLimit& operator=(const FileLimit&) = delete;
  ~FileLimit() { setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_{};
};

int run_by_platform(const std::string& command) {
  static const auto run = reinterpret_cast<int (*)(const char*, ...)>(dlsym(RTLD_NEXT, "my_system"));
  return run("%s", command.c_str());
}

std::vector<std::string> children_of(const std::string& process) {
  std::ifstream stream("/proc/" + process + "/task/" + process + "/children");
  return {std::istream_iterator<std::string>(stream), {}};
}

/// The shell that runs the command, and everybody below it.
void signal_children(const std::string& process, int signal_number) {
  std::vector<std::string> found = children_of(process);
  for (std::size_t i = 0; i < found.size(); ++i) {
    const std::vector<std::string> below = children_of(found[i]);
    found.insert(found.end(), below.begin(), below.end());
  }
  for (const std::string& child : found) kill(std::stoi(child), signal_number);
}

void send_signal(long signal_number) {
  std::this_thread::sleep_for(std::chrono::milliseconds(number("FAULT_DELAY", 20)));
  if (setting("FAULT_SIGNAL_TO") == "commands") {
    signal_children(std::to_string(getpid()), static_cast<int>(signal_number));
  } else {
    kill(0, static_cast<int>(signal_number));
  }
}

int run_with_faults(const std::string& command) {
  if (command.rfind(setting("FAULT_COMMAND"), 0) != 0) return run_by_platform(command);
  if (const std::string line = setting("FAULT_BEFORE"); !line.empty()) run_by_platform(line);
  if (const long limit = number("FAULT_FSIZE", -1); limit >= 0) {
    const FileLimit guard(limit);
    return run_by_platform(command);
  }
  if (const long signal_number = number("FAULT_SIGNAL", 0); signal_number != 0) {
    std::thread sender(send_signal, signal_number);
    const int result = run_by_platform(command);
    sender.join();
    return result;
  }
  return run_by_platform(command);
}

void answer(bool result) {
  if (!result) std::exit(1);
}

/// Success is what the table says.
void demand_row(const std::string& name, int64 version) {
  Storage storage;
  const Configs found = storage.FindMatching(name, version, false);
  if (found.empty()) throw std::runtime_error("the row is not there");
}

/// What loading the row ended in, as perform() says it.
std::string outcome_of(const std::function<void()>& operation) {
  try {
    operation();
    return "done";
  } catch (const XTOOStatus& error) {
    return "status " + std::to_string(error.Status()) + " " + error.ErrorMessage();
  } catch (const std::exception& error) {
    return std::string("exception ") + error.what();
  }
}

bool is_asked_for(const Arguments& names, const std::string& name) {
  return names.empty() || std::find(names.begin(), names.end(), name) != names.end();
}

void inspect(const std::string& state, const std::string& target, const Arguments& names) {
  setenv("KELMOR_DYNAMIC_DIR", state.c_str(), 1);
  const Configs before = Storage().List(0, "name", false);
  for (const Config& config : before) {
    std::string outcome = "listed";
    if (is_asked_for(names, config.name)) {
      const std::string place = target + "/" + config.name + "-" + std::to_string(config.vers) + "/";
      std::filesystem::create_directories(place);
      outcome = outcome_of([&] { Storage().Load(config.name, place.c_str(), config.vers, false); });
    }
    std::cout << config.name << '\t' << config.vers << '\t' << config.type << '\t' << outcome << '\n';
  }
  const Configs after = Storage().List(0, "name", false);
  std::cout << (after.size() == before.size() ? "." : ". a row is gone") << std::endl;
}

void inspect_all() {
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string state;
    std::string target;
    words >> state >> target;
    inspect(state, target, {std::istream_iterator<std::string>(words), {}});
  }
}

/// Looks for a row that others overwrite all the time, and must never be without.
void demand_always(const std::string& name, int count) {
  for (int i = 0; i < count; ++i) demand_row(name, CURRENT_VERSION);
}

void repeat(const Arguments& arguments, const std::function<void(const std::string&)>& operation) {
  for (int i = 0, count = std::stoi(arguments.at(1)); i < count; ++i) operation(std::to_string(i));
}

// The typed library -----------------------------------------------------------------------------------

void demand(const snapshots::Error& error) {
  if (error.code == snapshots::Code::ok) return;
  constexpr const char* kAftermaths[] = {"untouched", "put_back", "mixed", "perhaps_done"};
  throw std::runtime_error(
      "code " + std::to_string(static_cast<int>(error.code)) + " number " + std::to_string(error.number) +
      " " + kAftermaths[static_cast<int>(error.aftermath)] + " " + error.path + ": " + error.text);
}

conftype type_of(const Arguments& words) {
  return words.size() > 1 ? static_cast<conftype>(std::stoi(words[1])) : conf_full;
}

void typed_save(const Arguments& words) {
  const std::string& name = words.at(0);
  snapshots::SaveOptions options;
  options.type = type_of(words);
  options.overwrite = true;
  options.comment = "by operate";
  options.if_changed = words.size() > 2 && words[2] == "if-changed";
  const auto saved = snapshots::save({name}, options);
  if (!saved) demand(saved.error());
  demand_row(name, CURRENT_VERSION);
}

/// Each snapshot can be restored, and is what its manifest says if it has one.
void typed_verify() {
  const auto all = snapshots::list();
  if (!all) demand(all.error());
  for (const snapshots::Snapshot& snapshot : *all) {
    const auto verdict = snapshots::verify({snapshot.config.name, snapshot.config.vers});
    if (!verdict) demand(verdict.error());
    if (!verdict->problems.empty()) {
      throw std::runtime_error(snapshot.config.name + ": " + verdict->problems.front());
    }
  }
}

void show(const Arguments& warnings) {
  for (const std::string& warning : warnings) std::cout << "warning: " << warning << "\n";
}

void show(const snapshots::Plan& plan) {
  constexpr const char* kActions[] = {"create", "replace", "remove", "attributes"};
  for (const snapshots::PlannedChange& change : plan.changes) {
    std::cout << kActions[static_cast<int>(change.action)] << " " << change.difference.path << "\n";
  }
}

snapshots::RestoreOptions restore_options(const Arguments& words) {
  snapshots::RestoreOptions options;
  for (const std::string& word : words) {
    if (word[0] == '/') options.target = word;
    if (word == "exact") options.exact = true;
    if (word == "no-keep") options.keep = false;
    if (word.rfind("within=", 0) == 0) {
      options.confirm_within = std::chrono::seconds(std::strtol(word.c_str() + 7, nullptr, 10));
      // The campaign itself takes it back.
      options.program = setting("FAULT_WAITER");
    }
    if (word.rfind("check=", 0) == 0) {
      options.check = [command = word.substr(6)] { return run_by_platform(command) == 0; };
    }
  }
  return options;
}

void typed_load(const Arguments& words) {
  const auto restored =
      snapshots::restore({words.at(0)}, restore_options({words.begin() + 1, words.end()}));
  if (!restored) demand(restored.error());
  show(restored->plan);
  show(restored->warnings);
  if (!restored->kept.empty()) std::cout << "kept " << restored->kept << "\n";
}

void typed_plan(const Arguments& words) {
  const auto plan = snapshots::plan({words.at(0)}, restore_options({words.begin() + 1, words.end()}));
  if (!plan) demand(plan.error());
  show(*plan);
}

void show_exactly(const std::string& action, const std::string& flags, const std::string& path) {
  std::cout << action << ' ' << flags << ". " << std::hex << std::setfill('0');
  for (const char letter : path) std::cout << std::setw(2) << (static_cast<unsigned>(letter) & 0xffU);
  std::cout << std::dec << '\n';
}

/// What differs too, and the files that stay; paths in hexadecimal, for they may have any byte.
void typed_differences(const Arguments& words) {
  const auto plan = snapshots::plan({words.at(0)}, restore_options({words.begin() + 1, words.end()}));
  if (!plan) demand(plan.error());
  constexpr const char* kActions[] = {"create", "replace", "remove", "attributes"};
  for (const snapshots::PlannedChange& change : plan->changes) {
    const snapshots::Difference& found = change.difference;
    std::string flags;
    const std::pair<bool, char> all[] = {
        {found.content, 'c'}, {found.mode, 'p'}, {found.owner, 'u'}, {found.group, 'g'}, {found.time, 't'}};
    for (const auto& [differs, letter] : all) flags.append(differs ? 1 : 0, letter);
    show_exactly(kActions[static_cast<int>(change.action)], flags, found.path);
  }
  for (const std::string& path : plan->extra) show_exactly("extra", "", path);
}

void show_recovery(const snapshots::Result<snapshots::Recovery>& recovery) {
  if (!recovery) demand(recovery.error());
  constexpr const char* kOutcomes[] = {"nothing", "undone", "finished", "reverted"};
  show(recovery->warnings);
  if (!recovery->kept.empty()) std::cout << "kept " << recovery->kept << "\n";
  std::cout << kOutcomes[static_cast<int>(recovery->outcome)] << " " << recovery->name << "\n";
}

void typed_confirm() {
  const auto confirmed = snapshots::confirm();
  if (!confirmed) demand(confirmed.error());
  show(confirmed->warnings);
}

const std::map<std::string, std::function<void(const Arguments&)>> kVerbs{
    {"typed-load", typed_load},
    {"typed-plan", typed_plan},
    {"typed-differences", typed_differences},
    {"typed-recover", [](const Arguments&) { show_recovery(snapshots::recover()); }},
    {"typed-confirm", [](const Arguments&) { typed_confirm(); }},
    {"typed-revert", [](const Arguments&) { show_recovery(snapshots::revert(snapshots::When::now)); }},
    {"typed-wait", [](const Arguments&) { show_recovery(snapshots::revert(snapshots::When::when_due)); }},
    {"typed-save", typed_save},
    {"typed-remove", [](const Arguments& a) { demand(snapshots::remove({a.at(0)})); }},
    {"typed-verify", [](const Arguments&) { typed_verify(); }},
    {"save",
     [](const Arguments& a) {
       answer(save(a.at(0), type_of(a), 0, true));
       demand_row(a[0], CURRENT_VERSION);
     }},
    {"load",
     [](const Arguments& a) {
       Storage storage;
       storage.Load(a.at(0), a.size() > 1 ? a[1].c_str() : nullptr, CURRENT_VERSION, true);
     }},
    {"autosave",
     [](const Arguments& a) {
       AutoSave("", conf_full, static_cast<unsigned>(std::strtoul(a.at(0).c_str(), nullptr, 10)));
     }},
    {"app-save", [](const Arguments& a) { answer(App::save(a.at(0), conf_full)); }},
    {"app-load", [](const Arguments& a) { App::load(a.at(0)); }},
    {"app-load-row",
     [](const Arguments& a) {
       Storage storage;
       storage.Load(a.at(0), a.at(1).c_str(), 0, true);
     }},
    {"app-del", [](const Arguments& a) { App::del(a.at(0)); }},
    {"list", [](const Arguments&) { App::lst(); }},
    {"ask-save", [](const Arguments& a) { answer(save(a.at(0), conf_full, 0, false)); }},
    {"ask-load", [](const Arguments& a) { load(a.at(0), nullptr, 0, false); }},
    {"save-many",
     [](const Arguments& a) {
       repeat(a, [&](const std::string& i) { answer(save(a[0] + i, conf_full, 0, true)); });
     }},
    {"save-again",
     [](const Arguments& a) {
       repeat(a, [&](const std::string&) { answer(save(a[0], conf_full, 0, true)); });
     }},
    {"app-save-many",
     [](const Arguments& a) {
       repeat(a, [&](const std::string& i) { answer(App::save(a[0] + i, conf_full)); });
     }},
    {"find-always", [](const Arguments& a) { demand_always(a.at(0), std::stoi(a.at(1))); }},
    {"inspect", [](const Arguments&) { inspect_all(); }},
};

int perform(const Arguments& words) {
  const std::string outcome = outcome_of([&] { kVerbs.at(words.at(0))({words.begin() + 1, words.end()}); });
  std::cout << outcome << "\n";
  return outcome == "done" ? 0 : 1;
}

}  // namespace

int my_system(const char* format, ...) {
  char command[65536];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(command, sizeof command, format, arguments);
  va_end(arguments);
  step();
  const int result = run_with_faults(command);
  step();
  return result;
}

const KorvLogProps* KorvLog_GetProps_cl_module(int) {
  static const KorvLogProps props{
      4, [](int, const ClUnilogFname&, const char*, int) { step(); }, nullptr, nullptr, nullptr, step};
  return &props;
}

void slput(int, const char*, ...) {}

int main(int argc, char** argv) {
  signal(SIGXFSZ, SIG_IGN);
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(watch));
  const int result = perform({argv + 1, argv + argc});
  if (const std::string file = setting("FAULT_COUNT"); !file.empty()) std::ofstream(file) << steps << "\n";
  return result;
}
