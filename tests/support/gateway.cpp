#include "support/gateway.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace fs = std::filesystem;

namespace test {
namespace {

/// The gateway's own files. Each file contains its path, so that no two are alike.
constexpr const char* kConfigFiles =
    "user/gateway.conf user/gateway.key user/gateway.key.pub user/interfaces.conf "
    "user/routes.conf user/filter.conf user/nat.conf user/services.conf user/users.conf "
    "user/schedule.conf user/notify.conf user/config.db user/config.idx user/kwtp.conf "
    "user/upgrade.conf user/corlucfg-config.crg user/kwtpd-config.crg gw1.conf gw2.conf "
    "peer-north.conf outnet1.dat remote.txt quelvian.re corluadr.lst linkmap.dat station "
    "user/key_set hub/out hub/old hub/key";
constexpr const char* kEtcFiles = "failover.ini failover.ini.crg failoverd-config.crg";

/// Outside a sandbox the tests would overwrite the machine's own failover directory.
void require_sandbox() {
  if (std::getenv("CONFSAVE_SANDBOX") != nullptr) return;
  std::fprintf(stderr, "These tests fill /mnt/main/etc. Run them by ctest, or by script/lib/sandbox.\n");
  std::exit(125);
}

void set_times(const std::string& path, std::time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) throw std::runtime_error("utimensat " + path);
}

}  // namespace

void set_zone(const char* name) {
  setenv("TZ", name, 1);
  tzset();
}

Gateway::Gateway() {
  require_sandbox();
  host.reset();
  char name[] = "/tmp/confsave-test-XXXXXX";
  if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp");
  root_ = name;
  for (const std::string& dir : {config_dir() + "user", state_dir(), temp_dir()}) {
    fs::create_directories(dir);
  }
  empty_directory(etc_dir());
  setenv("KELMOR_CONFIG_PATH", config_dir().c_str(), 1);
  setenv("KELMOR_DYNAMIC_DIR", state_dir().c_str(), 1);
  setenv("KELMOR_TEMP_DIR", temp_dir().c_str(), 1);
  set_zone("UTC");
}

Gateway::~Gateway() {
  host.reset();
  for (const std::string& dir : {temp_dir(), config_dir(), etc_dir()}) {
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

void Gateway::make_configuration() const {
  int number = 0;
  const auto make = [&number](const std::string& dir, const char* list) {
    std::istringstream names(list);
    for (std::string name; names >> name; ++number) {
      fs::create_directories(fs::path(dir + name).parent_path());
      write_file(dir + name, "content of " + name + "\n");
      chmod((dir + name).c_str(), number % 2 == 0 ? 0640 : 0600);
      set_times(dir + name, 1488377100 + number);
    }
  };
  make(config_dir(), kConfigFiles);
  make(etc_dir(), kEtcFiles);
}

void Gateway::let_the_files_grow_old() { std::this_thread::sleep_for(std::chrono::milliseconds(2100)); }

Texts Gateway::temp_files() const { return names_in(temp_dir()); }

Texts Gateway::open_files() const {
  Texts found;
  for (const auto& [file, descriptor] : open_below(root_)) found.push_back(file);
  return found;
}

void Gateway::make_storage_unopenable() const {
  setenv("KELMOR_DYNAMIC_DIR", (root_ + "/missing").c_str(), 1);
}

void Gateway::damage_database() {
  write_file(database(), std::string(4096, 'x'));
  damaged_ = true;
}

void Gateway::put(const RowSpec& row) const {
  if (!exists(database())) make_table();
  insert_row(database(), row);
}

void Gateway::keep_all_rows() const {
  Database(database())
      .run("create trigger keep before delete on Config begin select raise(abort, 'kept'); end");
}

void Gateway::fail_in_log(const std::string& function, Raise raise) {
  host.on_record = [function, raise = std::move(raise)](const std::string& name) mutable {
    if (name == function && raise) std::exchange(raise, nullptr)();
  };
}

void Gateway::expect_nothing_held() const {
  EXPECT_EQ(temp_files(), Texts());
  if (damaged_ || !exists(database())) return;
  EXPECT_TRUE(lock_is_free(database()));
  EXPECT_EQ(query("pragma integrity_check"), Rows{{"ok"}});
}

LogRecords Gateway::records() const {
  LogRecords result = host.records;
  for (LogRecord& record : result) record.text = without_now(record.text);
  return result;
}

Texts Gateway::commands() const {
  Texts texts;
  for (std::string text : host.commands) {
    text = std::regex_replace(text, std::regex(temp_dir() + "/[A-Za-z0-9]{6}"), "<archive>");
    text = std::regex_replace(text, std::regex("//[A-Za-z0-9]{6}"), "//<scratch>");
    texts.push_back(std::regex_replace(text, std::regex(root_), "<root>"));
  }
  return texts;
}

void Gateway::forget() {
  recorder.clear();
  host.records.clear();
  host.commands.clear();
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

}  // namespace test
