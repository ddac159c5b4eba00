#include "support/gateway.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "kelmor/system.h"

namespace fs = std::filesystem;

namespace test {
namespace {

/// The gateway's own files. Content tells the path, so that no two are alike.
const char* const kConfigFiles[] = {
    "user/gateway.conf",
    "user/gateway.key",
    "user/gateway.key.pub",
    "user/interfaces.conf",
    "user/routes.conf",
    "user/filter.conf",
    "user/nat.conf",
    "user/services.conf",
    "user/users.conf",
    "user/schedule.conf",
    "user/notify.conf",
    "user/config.db",
    "user/config.idx",
    "user/kwtp.conf",
    "user/upgrade.conf",
    "user/corlucfg-config.crg",
    "user/kwtpd-config.crg",
    "gw1.conf",
    "gw2.conf",
    "peer-north.conf",
    "outnet1.dat",
    "remote.txt",
    "quelvian.re",
    "corluadr.lst",
    "linkmap.dat",
    "station",
    "user/key_set",
    "hub/out",
    "hub/old",
    "hub/key",
};
const char* const kEtcFiles[] = {"failover.ini", "failover.ini.crg", "failoverd-config.crg"};

/// A sandbox is what keeps the machine's own failover directory out of the tests' reach.
void require_sandbox() {
  if (std::getenv("CONFSAVE_SANDBOX") != nullptr) return;
  std::fprintf(stderr, "These tests fill /mnt/main/etc. Run them by ctest, or by script/lib/sandbox.\n");
  std::exit(125);
}

void set_times(const std::string& path, std::time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) throw std::runtime_error("utimensat " + path);
}

void empty_directory(const std::string& dir) {
  for (const auto& entry : fs::directory_iterator(dir)) fs::remove_all(entry.path());
}

std::vector<std::string> recorded;
sqlite3* last_connection = nullptr;

int note_statement(unsigned, void*, void*, void* text) {
  recorded.emplace_back(static_cast<const char*>(text));
  return 0;
}

int watch_connection(sqlite3* db, const char**, const sqlite3_api_routines*) {
  last_connection = db;
  return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, note_statement, nullptr);
}

using Extension = void (*)();
const auto kExtension = reinterpret_cast<Extension>(watch_connection);

/// Runs the lock-holding program; its standard output becomes `out` when that is not -1.
int spawn_locker(const std::string& database, int milliseconds, int out) {
  std::string program = CONFSAVE_LOCKER;
  std::string file = database;
  std::string time = std::to_string(milliseconds);
  char* const arguments[] = {program.data(), file.data(), time.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (out != -1) posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + program);
  return pid;
}

}  // namespace

Gateway::Gateway() {
  require_sandbox();
  host.reset();
  char name[] = "/tmp/confsave-test-XXXXXX";
  if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp");
  root_ = name;
  for (const std::string& dir : {config_dir() + "user", state_dir(), scratch_dir()}) {
    fs::create_directories(dir);
  }
  empty_directory(etc_dir());
  setenv("KELMOR_CONFIG_PATH", config_dir().c_str(), 1);
  setenv("KELMOR_DYNAMIC_DIR", state_dir().c_str(), 1);
  setenv("KELMOR_TEMP_DIR", scratch_dir().c_str(), 1);
  setenv("TZ", "UTC", 1);
  tzset();
}

Gateway::~Gateway() {
  host.reset();
  for (const std::string& dir : {scratch_dir(), config_dir(), etc_dir()}) {
    if (!exists(dir)) continue;
    for (const std::string& name : names_in(dir)) {
      // mkstemp and mkdtemp names: six letters and digits, and no file of a gateway looks like that.
      const bool temporary = name.size() == 6 && std::all_of(name.begin(), name.end(), [](char c) {
                               return std::isalnum(static_cast<unsigned char>(c)) != 0;
                             });
      EXPECT_FALSE(temporary) << "left behind: " << dir << "/" << name;
    }
  }
  empty_directory(etc_dir());
  fs::remove_all(root_);
}

void Gateway::make_configuration() {
  int number = 0;
  const auto make = [&number](const std::string& dir, const std::string& name) {
    fs::create_directories(fs::path(dir + name).parent_path());
    write_file(dir + name, "content of " + name + "\n");
    chmod((dir + name).c_str(), number % 2 == 0 ? 0640 : 0600);
    set_times(dir + name, 1488377100 + number);
    ++number;
  };
  for (const char* name : kConfigFiles) make(config_dir(), name);
  for (const char* name : kEtcFiles) make(etc_dir(), name);
}

Texts Gateway::scratch_files() const { return names_in(scratch_dir()); }

Texts Gateway::open_files() const {
  Texts found;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string file = fs::read_symlink(entry.path(), gone).string();
    if (file.compare(0, root_.size(), root_) == 0) found.push_back(file);
  }
  return found;
}

LogRecords Gateway::records() const {
  LogRecords result = host.records;
  for (LogRecord& record : result) record.text = without_now(record.text);
  return result;
}

Texts Gateway::commands() const {
  Texts texts;
  for (std::string text : host.commands) {
    text = std::regex_replace(text, std::regex(scratch_dir() + "/[A-Za-z0-9]{6}"), "<archive>");
    text = std::regex_replace(text, std::regex("//[A-Za-z0-9]{6}"), "//<scratch>");
    texts.push_back(std::regex_replace(text, std::regex(root_), "<root>"));
  }
  return texts;
}

Rows Gateway::query(const std::string& sql) const {
  Rows rows = Database(database()).query(sql);
  for (Texts& row : rows) row = without_now(row);
  return rows;
}

std::string Gateway::without_now(std::string text) const {
  const std::time_t until = std::time(nullptr);
  for (std::time_t time = started; time <= until; ++time) {
    const std::string digits = std::to_string(time);
    for (auto at = text.find(digits); at != std::string::npos; at = text.find(digits)) {
      text.replace(at, digits.size(), "<now>");
    }
  }
  return text;
}

Texts Gateway::without_now(Texts texts) const {
  for (std::string& text : texts) text = without_now(text);
  return texts;
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  if (!file) throw std::runtime_error("cannot read " + path);
  return content.str();
}

bool exists(const std::string& path) { return fs::exists(fs::symlink_status(path)); }

std::map<std::string, std::string> tree(const std::string& dir) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    if (entry.is_regular_file()) {
      files[fs::relative(entry.path(), dir).string()] = read_file(entry.path().string());
    }
  }
  return files;
}

Texts names_in(const std::string& dir) {
  Texts names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

Texts members(const std::vector<char>& archive) {
  const std::string file = "/tmp/confsave-members-" + std::to_string(getpid());
  write_file(file, std::string(archive.begin(), archive.end()));
  const int code = shell("tar tzf " + file + " > " + file + ".list");
  std::istringstream list(read_file(file + ".list"));
  fs::remove(file);
  fs::remove(file + ".list");
  if (code != 0) throw std::runtime_error("not a gzip tar archive");
  Texts names;
  for (std::string name; std::getline(list, name);) names.push_back(name);
  return names;
}

std::vector<char> make_archive(const std::string& dir, const std::string& names) {
  const std::string file = "/tmp/confsave-archive-" + std::to_string(getpid());
  if (shell("cd " + dir + " && tar czf " + file + " " + names) != 0) throw std::runtime_error("tar");
  const std::string bytes = read_file(file);
  fs::remove(file);
  return {bytes.begin(), bytes.end()};
}

int shell(const std::string& command) {
  static const auto real = reinterpret_cast<int (*)(const char*, ...)>(dlsym(RTLD_NEXT, "my_system"));
  return real("%s", command.c_str());
}

Database::Database(const std::string& file) {
  sqlite3* const watched = last_connection;
  const int code = sqlite3_open(file.c_str(), &db_);
  last_connection = watched;
  if (code == SQLITE_OK) {
    sqlite3_trace_v2(db_, 0, nullptr, nullptr);
    return;
  }
  sqlite3_close(db_);
  throw std::runtime_error("cannot open " + file);
}

Database::~Database() { sqlite3_close(db_); }

Rows Database::query(const std::string& sql) const {
  Rows rows;
  const auto append = [](void* context, int columns, char** values, char**) {
    Texts row;
    for (int i = 0; i < columns; ++i) row.emplace_back(values[i] != nullptr ? values[i] : "NULL");
    static_cast<Rows*>(context)->push_back(row);
    return 0;
  };
  char* message = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), append, &rows, &message) != SQLITE_OK) {
    const std::string text = message != nullptr ? message : "unknown";
    sqlite3_free(message);
    throw std::runtime_error(sql + ": " + text);
  }
  return rows;
}

std::string Database::value(const std::string& sql) const { return query(sql).at(0).at(0); }

void insert_row(const std::string& database, const RowSpec& row) {
  Database(database).run(
      "insert into 'Config' (name,version,keybase,etc,type,save_time,load_time) values ('" + row.name +
      "'," + std::to_string(row.version) + "," + row.keybase + "," + row.etc + "," +
      std::to_string(row.type) + "," + row.save_time + "," + row.load_time + ")");
}

StatementRecorder::StatementRecorder() {
  recorded.clear();
  sqlite3_auto_extension(kExtension);
}

StatementRecorder::~StatementRecorder() {
  sqlite3_cancel_auto_extension(kExtension);
  last_connection = nullptr;
}

const Texts& StatementRecorder::statements() const { return recorded; }

void StatementRecorder::clear() { recorded.clear(); }

sqlite3* StatementRecorder::connection() const { return last_connection; }

bool lock_is_free(const std::string& database) {
  const int pid = spawn_locker(database, 0, -1);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

LockHolder::LockHolder(const std::string& database, int milliseconds) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  pid_ = spawn_locker(database, milliseconds, ends[1]);
  close(ends[1]);
  char ready = 0;
  const bool held = read(ends[0], &ready, 1) == 1;
  close(ends[0]);
  if (!held) throw std::runtime_error("the lock is not free");
}

LockHolder::~LockHolder() {
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

}  // namespace test
