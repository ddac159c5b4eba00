#include "memory_gateway.h"

#include <sqlite3.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

const fs::path kEtc = "/mnt/main/etc";
const char* const kEtcFiles[] = {"failover.ini"};
const char* const kFiles[] = {"user/gateway.conf", "gw1.conf", "user/config.db", "user/config.idx"};

/// A restore deletes these first.
bool is_of_database(const std::string& name) { return name.rfind("user/config.", 0) == 0; }

std::string contents_of(const std::string& age, const std::string& name) { return age + " " + name + "\n"; }

std::string read(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

/// All of one time, so that the same files make the same archive.
void write(const fs::path& file, const std::string& text) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
  fs::last_write_time(file, fs::file_time_type(std::chrono::seconds(0)));
}

Tree tree_below(const fs::path& root) {
  Tree tree;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string name = entry.path().lexically_relative(root).string();
    if (entry.is_regular_file()) tree[name] = read(entry.path());
    if (entry.is_directory() && fs::is_empty(entry.path())) tree[name + "/"] = "";
  }
  return tree;
}

Tree expected_etc(const std::string& age) {
  Tree tree;
  for (const char* name : kEtcFiles) tree[name] = contents_of(age, name);
  return tree;
}

Tree expected_keybase(const std::string& age, long type) {
  Tree tree;
  for (const char* name : kFiles) tree[name] = contents_of(age, name);
  if (type != ConfSave::conf_full) tree.erase("gw1.conf");
  return tree;
}

void write_live(const fs::path& root, const std::string& age) {
  for (const auto& [name, text] : expected_keybase(age, ConfSave::conf_full)) write(root / name, text);
  for (const auto& [name, text] : expected_etc(age)) write(kEtc / name, text);
}

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

Database open(const fs::path& file) {
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  return Database(db);
}

std::string blob(sqlite3_stmt* statement, int column) {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, column));
  return bytes == nullptr
             ? std::string()
             : std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

std::string flaw_of(const Tree& tree, const Tree& before, const Tree& loaded) {
  for (const auto& [name, text] : tree) {
    const auto old = before.find(name);
    const auto now = loaded.find(name);
    const bool is_before = old != before.end() && old->second == text;
    const bool is_loaded = now != loaded.end() && now->second == text;
    if (!is_before && !is_loaded) return "'" + name + "' is not whole or not expected";
  }
  return "";
}

}  // namespace

MemoryGateway::MemoryGateway(fs::path root) : root_(std::move(root)) {
  for (const char* name : {"config/user", "state", "temp", "target"}) {
    fs::create_directories(root_ / name);
  }
  setenv("KELMOR_CONFIG_PATH", (root_ / "config").c_str(), 1);
  setenv("KELMOR_DYNAMIC_DIR", (root_ / "state").c_str(), 1);
  setenv("KELMOR_TEMP_DIR", (root_ / "temp").c_str(), 1);
  write_live(root_ / "config", "old");
  {
    ConfSave::Storage storage;
    for (const char* name : {"weekly", "autosave-1", "autosave-2"}) {
      storage.Create(name, ConfSave::conf_full, 0);
      storage.Create(name, ConfSave::conf_full, ConfSave::CURRENT_VERSION);
    }
    storage.Create("daily", ConfSave::conf_full, ConfSave::CURRENT_VERSION);
  }
  fs::copy_file(root_ / "state/storage.db", root_ / "kept.db");
  stored_ = rows();
  restore();
}

void MemoryGateway::restore() {
  fs::remove(root_ / "state/storage.db-journal");
  fs::copy_file(root_ / "kept.db", root_ / "state/storage.db", fs::copy_options::overwrite_existing);
  write_live(root_ / "config", "new");
  fs::remove_all(root_ / "target");
  fs::create_directory(root_ / "target");
}

Rows MemoryGateway::rows() const {
  const Database db = open(root_ / "state/storage.db");
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db.get(), "select name, version, type, keybase, etc, load_time from Config", -1,
                     &statement, nullptr);
  Rows rows;
  while (sqlite3_step(statement) == SQLITE_ROW) {
    const Key key{blob(statement, 0), sqlite3_column_int64(statement, 1)};
    rows[key] = {static_cast<long>(sqlite3_column_int(statement, 2)), blob(statement, 3),
                 blob(statement, 4), blob(statement, 5)};
  }
  if (sqlite3_finalize(statement) != SQLITE_OK) throw std::runtime_error("the rows cannot be read");
  return rows;
}

bool MemoryGateway::unpacks_to(const std::string& archive, const Tree& expected) {
  if (unpacked_.count({archive, expected}) != 0) return true;
  const fs::path place = root_ / "unpacked";
  fs::create_directory(place);
  write(root_ / "archive", archive);
  const std::string command =
      "tar xzf " + (root_ / "archive").string() + " -C " + place.string() + " 2>/dev/null";
  const bool whole = std::system(command.c_str()) == 0 && tree_below(place) == expected;
  fs::remove_all(place);
  fs::remove(root_ / "archive");
  if (whole) unpacked_.insert({archive, expected});
  return whole;
}

bool MemoryGateway::is_new(const Row& row) {
  return row.load_time.empty() && unpacks_to(row.etc, expected_etc("new")) &&
         unpacks_to(row.keybase, expected_keybase("new", row.type));
}

std::string MemoryGateway::flaw_of_live_files(bool may_be_loaded) const {
  const Tree live = tree_below(root_ / "config");
  const Tree etc = tree_below(kEtc);
  const Tree before = expected_keybase("new", ConfSave::conf_full);
  for (const auto& [name, text] : before) {
    const bool may_be_gone = may_be_loaded && is_of_database(name);
    if (live.count(name) == 0 && !may_be_gone) return "'" + name + "' is gone";
  }
  if (etc.size() != std::size(kEtcFiles)) return "the failover files are gone";
  const Tree stored = may_be_loaded ? expected_keybase("old", ConfSave::conf_full) : Tree();
  const std::string flaw = flaw_of(live, before, stored);
  return flaw.empty() ? flaw_of(etc, expected_etc("new"), may_be_loaded ? expected_etc("old") : Tree())
                      : flaw;
}

std::string MemoryGateway::flaw_of_target(bool may_be_loaded, bool must_be_whole) const {
  Tree stored = expected_keybase("old", ConfSave::conf_full);
  stored.merge(expected_etc("old"));
  const Tree found = tree_below(root_ / "target");
  if (must_be_whole && found != stored) return "the target is not whole";
  return flaw_of(found, {}, may_be_loaded ? stored : Tree());
}

bool MemoryGateway::lock_is_free() const {
  const Database db = open(root_ / "state/storage.db");
  return sqlite3_exec(db.get(), "begin exclusive; rollback", nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool MemoryGateway::is_sound() const {
  const Database db = open(root_ / "state/storage.db");
  std::string answer;
  const auto take = [](void* context, int, char** values, char**) {
    *static_cast<std::string*>(context) += values[0];
    return 0;
  };
  sqlite3_exec(db.get(), "pragma integrity_check", take, &answer, nullptr);
  return answer == "ok";
}

long MemoryGateway::open_files() const {
  long count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone).string().rfind(root_.string(), 0) == 0) ++count;
  }
  return count;
}
