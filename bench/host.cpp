// The host that is measured: performs one operation, as a gateway's shell would.
//
//   bench-host save NAME | load NAME [TARGET] | list | open | fill COUNT KIBIBYTES
//
// With BENCH_FIGURES=FILE it also writes, as JSON: the seconds of all, of its commands and of SQLite's
// syncs, the bytes that were read, and by how many KiB its memory grew.

#include <confsave.h>
#include <dlfcn.h>
#include <kelmor/paths.h>
#include <kelmor/system.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "peak_memory.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace ConfSave;

double in_commands = 0;
double in_syncs = 0;

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int timed_sync(const char* name, int descriptor) {
  const auto start = Clock::now();
  const int result = next<int (*)(int)>(name)(descriptor);
  in_syncs += since(start);
  return result;
}

long bytes_read() {
  std::ifstream io("/proc/self/io");
  std::string name;
  long value = 0;
  io >> name >> value;
  return value;
}

std::string database_file() {
  const auto& paths = toolsunix::FilenameConvertor::Instance();
  return paths.GetFullDynamicDirName(toolsunix::path::DynamicDirectoryId{1}) + "/storage.db";
}

/// Rows past the library: so many archives of random bytes.
void fill(int count, int kibibytes) {
  { const Storage storage; }
  sqlite3* db = nullptr;
  sqlite3_open(database_file().c_str(), &db);
  std::mt19937_64 source(1);
  std::vector<char> bytes(static_cast<std::size_t>(kibibytes) * 1024);
  for (char& byte : bytes) byte = static_cast<char>(source());
  sqlite3_exec(db, "pragma synchronous=off; begin", nullptr, nullptr, nullptr);
  for (int i = 0; i < count; ++i) {
    const std::string sql =
        "insert into Config (name, version, keybase, etc, type, save_time) values ('name" +
        std::to_string(i) + "', 17264017408, ?, x'00', 1, 1488377100)";
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    sqlite3_bind_blob(statement, 1, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
  }
  sqlite3_exec(db, "commit", nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

int perform(const std::vector<std::string>& words) {
  const std::string& verb = words.at(0);
  if (verb == "save") return save(words.at(1), conf_full, 0, true) ? 0 : 1;
  if (verb == "open") return Storage().opened ? 0 : 1;
  if (verb == "load") {
    Storage().Load(words.at(1), words.size() > 2 ? words[2].c_str() : nullptr, CURRENT_VERSION, true);
  } else if (verb == "list") {
    App::lst();
  } else if (verb == "fill") {
    fill(std::stoi(words.at(1)), std::stoi(words.at(2)));
  } else {
    return 2;
  }
  return 0;
}

}  // namespace

int fsync(int fd) { return timed_sync("fsync", fd); }
int fdatasync(int fildes) { return timed_sync("fdatasync", fildes); }

int my_system(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  char command[65536];
  static_cast<void>(std::vsnprintf(command, sizeof command, format, arguments));
  va_end(arguments);
  const auto start = Clock::now();
  const int result = next<int (*)(const char*, ...)>("my_system")("%s", command);
  in_commands += since(start);
  return result;
}

int main(int argc, char** argv) {
  const long memory = peak_memory();
  const auto start = Clock::now();
  const int result = perform({argv + 1, argv + argc});
  const double all = since(start);
  if (const char* file = std::getenv("BENCH_FIGURES")) {
    std::ofstream(file) << "{\"all\": " << all << ", \"commands\": " << in_commands
                        << ", \"syncs\": " << in_syncs << ", \"read\": " << bytes_read()
                        << ", \"memory\": " << peak_memory() - memory << "}\n";
  }
  return result;
}
