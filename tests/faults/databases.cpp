// Runs every operation on storages that were damaged or forged.
//
//   databases [--full] [--seed=N]
//
// No crash, no hang, and no report of a sanitizer where it is built with one. In a storage that is sound
// all the same, no row changes that no operation is about, and a snapshot that is whole is restored whole.

#include <confsave.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace ConfSave;

fs::path root;
std::mt19937 source;

std::size_t below(std::size_t end) {
  return std::uniform_int_distribution<std::size_t>(0, end - 1)(source);
}

std::string read(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

void write(const fs::path& file, const std::string& contents) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << contents;
}

// Damage -----------------------------------------------------------------------------------------------

void flip(std::string& file) {
  for (std::size_t i = 0, count = 1 + below(20); i < count; ++i) {
    const unsigned bit = 1U << below(8);
    char& byte = file[below(file.size())];
    byte = static_cast<char>(static_cast<unsigned char>(byte) ^ bit);
  }
}

void overwrite(std::string& file) {
  const std::size_t length = 1 + below(64);
  const std::size_t start = below(file.size() - length);
  for (std::size_t i = start; i < start + length; ++i) file[i] = static_cast<char>(below(256));
}

void cut(std::string& file) { file.resize(1 + below(file.size())); }

void lengthen(std::string& file) { file.append(1 + below(9000), static_cast<char>(below(256))); }

/// The header and the first bytes of a page are where the structure is.
void damage_structure(std::string& file) {
  const std::size_t page = below(file.size() / 4096);
  for (std::size_t i = 0, count = 1 + below(6); i < count; ++i) {
    file[page * 4096 + below(page == 0 ? 140 : 40)] = static_cast<char>(below(256));
  }
}

void swap_pages(std::string& file) {
  const std::size_t one = below(file.size() / 4096) * 4096;
  const std::size_t other = below(file.size() / 4096) * 4096;
  const std::string kept = file.substr(one, 4096);
  file.replace(one, 4096, file.substr(other, 4096));
  file.replace(other, 4096, kept);
}

// Forgery ----------------------------------------------------------------------------------------------

std::string any_value() {
  static const std::vector<std::string> values{"null",
                                               "0",
                                               "-1",
                                               "1",
                                               "3",
                                               "7",
                                               "9223372036854775807",
                                               "-9223372036854775808",
                                               "2147483648",
                                               "1e300",
                                               "-0.5",
                                               "9e999",
                                               "''",
                                               "'text'",
                                               "'12abc'",
                                               "x''",
                                               "x'00'",
                                               "x'ff00ff'",
                                               "zeroblob(100000)",
                                               "char(0)||'after'",
                                               "'autosave-x'",
                                               "'corlu-config'",
                                               "cast(x'ff' as text)",
                                               "'a' || char(10) || 'b'",
                                               "hex(randomblob(3000))",
                                               "randomblob(5000)"};
  return values[below(values.size())];
}

/// The shapes in turn, each with rows and values that are drawn.
void forge(const fs::path& file, std::size_t number) {
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  static const std::vector<std::string> shapes{
      "drop table Config; create table Config (id, name, version, keybase, etc, type, save_time, "
      "load_time); insert into Config (version) values (1)",
      "drop table Config; create view Config as select 1 as id, 'weekly' as name, 0 as version, x'00' as "
      "keybase, x'00' as etc, 1 as type, 1 as save_time, 1 as load_time",
      "create trigger t before insert on Config begin select raise(fail, 'no'); end",
      "create trigger t after delete on Config begin delete from Config; end",
      "create trigger t before update on Config begin select raise(ignore); end",
      "alter table Config add column more default 'x'",
      "pragma user_version=7",
      "pragma encoding='UTF-16'",
      "create index i on Config (save_time)",
      "pragma journal_mode=wal",
      "select 1"};
  std::string sql = shapes[number % shapes.size()] + ";";
  for (std::size_t i = 0, count = below(4); i < count; ++i) {
    sql += "insert into Config (name, version, keybase, etc, type, save_time, load_time) values (" +
           any_value() + "," + any_value() + "," + any_value() + "," + any_value() + "," + any_value() +
           "," + any_value() + "," + any_value() + ");";
  }
  static const char* const columns[] = {"name", "version",   "keybase",  "etc",
                                        "type", "save_time", "load_time"};
  sql += std::string("update Config set ") + columns[below(std::size(columns))] + "=" + any_value() + ";";
  sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

// What is stored ---------------------------------------------------------------------------------------

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};

/// All columns of all rows of a query, as texts; empty when it fails.
std::string rows_of(const std::string& query) {
  sqlite3* opened = nullptr;
  sqlite3_open((root / "state/storage.db").c_str(), &opened);
  const std::unique_ptr<sqlite3, CloseDatabase> db(opened);
  std::string rows;
  const auto append = [](void* context, int columns, char** values, char**) {
    for (int i = 0; i < columns; ++i) {
      static_cast<std::string*>(context)->append(values[i] != nullptr ? values[i] : "NULL").append("|");
    }
    return 0;
  };
  const int code = sqlite3_exec(db.get(), query.c_str(), append, &rows, nullptr);
  return code == SQLITE_OK ? rows : "";
}

/// Neither damaged nor with anything of its own that changes rows.
bool is_sound() {
  return rows_of("pragma integrity_check") == "ok|" &&
         rows_of("select count(*) from sqlite_master where type in ('trigger', 'view')") == "0|";
}

/// The rows that no operation is about.
std::string bystanders() {
  return rows_of(
      "select id, name, version, hex(keybase), hex(etc), type, save_time, load_time from Config "
      "where name not glob 'w*' and name != 'new' and name not glob 'autosave*' order by id");
}

std::string weekly_archives() {
  return rows_of("select hex(keybase), hex(etc), type from Config where name='weekly' and version=" +
                 std::to_string(CURRENT_VERSION));
}

void fail(const std::string& what) {
  std::cerr << "databases: " << what << "\n";
  std::exit(1);
}

std::string sound_archives;
std::size_t compared = 0;
std::size_t loaded = 0;

void check_load() {
  if (weekly_archives() != sound_archives) return;
  const fs::path target = root / "whole";
  fs::remove_all(target);
  fs::create_directories(target);
  Storage().Load("weekly", (target.string() + "/").c_str(), CURRENT_VERSION, true);
  if (read(target / "user/gateway.conf") != "content\n" || read(target / "failover.ini") != "content\n") {
    fail("a whole snapshot was not restored whole");
  }
  ++loaded;
}

// Operations -------------------------------------------------------------------------------------------

using Operation = std::function<void()>;

const std::vector<Operation>& operations() {
  static const std::string target = (root / "target/").string();
  static const std::vector<Operation> all{
      [] { Storage().Exists("weekly", CURRENT_VERSION); },
      [] { Storage().List(0, "name", false); },
      [] { Storage().List(CURRENT_VERSION, "", true); },
      [] { Storage().FindMatching("*", 0, false); },
      [] { App::lst(); },
      [] { CheckOld(); },
      [] { Storage().Load("weekly", target.c_str(), CURRENT_VERSION, true); },
      [] { load("w*", target.c_str(), 0, true); },
      [] { Storage().Create("new", conf_corlu, 1); },
      [] { Storage().Update("weekly", conf_corlu, CURRENT_VERSION); },
      [] { save("weekly", conf_corlu, 0, true); },
      [] { AutoSave("", conf_corlu, 1); },
      [] { App::save("weekly", conf_corlu); },
      [] { App::load("weekly"); },
      [] { App::del("weekly"); },
      [] { Storage().Delete("weekly", CURRENT_VERSION); },
  };
  return all;
}

/// What may leave an operation. Anything else ends this program.
void run(const Operation& operation) {
  std::istringstream in("n\nYes, do as I say\n");
  std::ostringstream out;
  auto* const input = std::cin.rdbuf(in.rdbuf());
  auto* const output = std::cout.rdbuf(out.rdbuf());
  auto* const errors = std::cerr.rdbuf(out.rdbuf());
  try {
    operation();
  } catch (const XTOOStatus&) {
    // Stated.
  } catch (const std::logic_error&) {
    // A row without a name, in a list.
  }
  std::cin.rdbuf(input);
  std::cout.rdbuf(output);
  std::cerr.rdbuf(errors);
  std::cin.clear();
}

void run_all(const std::string& damaged) {
  constexpr unsigned kSeconds = 30;
  alarm(kSeconds);  // Its signal is not caught.
  fs::remove_all(root / "state");
  fs::create_directory(root / "state");
  write(root / "state/storage.db", damaged);
  const bool sound = is_sound();
  if (sound) check_load();
  const std::string before = bystanders();
  for (const Operation& operation : operations()) run(operation);
  if (sound) {
    if (bystanders() != before)
      fail("a row changed that no operation is about:\n" + before + "\n" + bystanders());
    ++compared;
  }
  alarm(0);
}

std::string damaged(const std::string& sound, std::size_t number) {
  static void (*const damages[])(std::string&) = {flip,     overwrite,        cut,
                                                  lengthen, damage_structure, swap_pages};
  std::string file = sound;
  if (number % 3 == 0) {
    write(root / "forged.db", sound);
    forge(root / "forged.db", number / 3);
    file = read(root / "forged.db");
  }
  if (number % 3 != 0 || below(4) == 0) damages[below(std::size(damages))](file);
  return file;
}

void make_gateway() {
  for (const char* name : {"config/user", "state", "temp", "target"}) fs::create_directories(root / name);
  write(root / "config/user/gateway.conf", "content\n");
  write("/mnt/main/etc/failover.ini", "content\n");
  setenv("KELMOR_CONFIG_PATH", (root / "config").c_str(), 1);
  setenv("KELMOR_DYNAMIC_DIR", (root / "state").c_str(), 1);
  setenv("KELMOR_TEMP_DIR", (root / "temp").c_str(), 1);
  setenv("KELMOR_LOG_LEVEL", "0", 1);
  Storage storage;
  for (const char* name : {"weekly", "daily", "autosave-1", "autosave-2"}) {
    storage.Create(name, conf_full, CURRENT_VERSION);
    storage.Create(name, conf_full, 0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("CONFSAVE_SANDBOX") == nullptr) {
    std::cerr << "This fills /mnt/main/etc. Run it by script/faults or ctest.\n";
    return 125;
  }
  std::size_t count = 90;
  unsigned seed = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--full") == 0) count = 3000;
    if (std::strncmp(argv[i], "--seed=", 7) == 0) seed = static_cast<unsigned>(std::stoul(argv[i] + 7));
  }
  source.seed(seed);
  char name[] = "/mnt/confsave-databases-XXXXXX";
  root = mkdtemp(name);
  make_gateway();
  const std::string sound = read(root / "state/storage.db");
  sound_archives = weekly_archives();
  for (std::size_t i = 0; i < count; ++i) run_all(damaged(sound, i));
  const bool left = !fs::is_empty(root / "temp");
  fs::remove_all(root);
  std::cout << count << " storages, " << operations().size() << " operations on each"
            << "; rows compared in " << compared << ", snapshots loaded whole from " << loaded
            << (left ? ", temporary files were left" : "") << "; seed " << seed << "\n";
  return left || compared == 0 || loaded == 0 ? 1 : 0;
}
