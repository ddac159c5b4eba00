// A host that performs one operation of the library, and meets with what the environment says:
//
//   operate VERB [ARGUMENT...]
//
//   FAULT_KILL_AT=N    is killed, with its whole process group, at step N
//   FAULT_KILL=host    … alone, its commands live on
//   FAULT_COUNT=FILE   writes the number of its steps there when it ends
//   FAULT_FSIZE=N      no command can write a file of more than N bytes
//   FAULT_COMMAND=TEXT FAULT_FSIZE and FAULT_SIGNAL are for commands that begin so
//   FAULT_SIGNAL=N     gets signal N, with its whole process group, 20 ms after a command began
//
// A step is the beginning and the end of each command, statement and log record.
//
// Prints "done" or what went wrong; exits with 0 or 1.

#include <confsave.h>
#include <dlfcn.h>
#include <kelmor/log.h>
#include <kelmor/system.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <thread>
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

int run_with_faults(const std::string& command) {
  if (command.rfind(setting("FAULT_COMMAND"), 0) != 0) return run_by_platform(command);
  if (const long limit = number("FAULT_FSIZE", -1); limit >= 0) {
    const FileLimit guard(limit);
    return run_by_platform(command);
  }
  if (const long signal_number = number("FAULT_SIGNAL", 0); signal_number != 0) {
    std::thread sender([signal_number] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      kill(0, static_cast<int>(signal_number));
    });
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

const std::map<std::string, std::function<void(const Arguments&)>> kVerbs{
    {"save",
     [](const Arguments& a) {
       answer(save(a.at(0), conf_full, 0, true));
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
       const int count = std::stoi(a.at(1));
       for (int i = 0; i < count; ++i) answer(save(a.at(0) + std::to_string(i), conf_corlu, 0, true));
     }},
    {"save-again",
     [](const Arguments& a) {
       const int count = std::stoi(a.at(1));
       for (int i = 0; i < count; ++i) answer(save(a.at(0), conf_corlu, 0, true));
     }},
};

int perform(const Arguments& words) {
  try {
    kVerbs.at(words.at(0))({words.begin() + 1, words.end()});
    std::cout << "done\n";
    return 0;
  } catch (const XTOOStatus& error) {
    std::cout << "status " << error.Status() << " " << error.ErrorMessage() << "\n";
  } catch (const std::exception& error) {
    std::cout << "exception " << error.what() << "\n";
  }
  return 1;
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
