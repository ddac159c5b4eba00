#include "support/autosaves.h"

#include <filesystem>
#include <iomanip>
#include <sstream>

namespace test {
namespace {

/// The name of an autosave at `time`, UTC.
std::string name_at(std::time_t time) {
  std::tm parts = {};
  gmtime_r(&time, &parts);
  std::ostringstream name;
  name << "autosave-" << std::put_time(&parts, "%Y-%m-%d-%H-%M-%S");
  return name.str();
}

}  // namespace

void Autosaves::run(const std::function<void()>& call) {
  host.system_log.clear();
  EXPECT_EQ(dialogue("", call), "");
}

bool Autosaves::check_old() {
  bool old = false;
  run([&] { old = ConfSave::CheckOld(); });
  return old;
}

void Autosaves::in_one_second(const std::function<void(std::time_t, const std::string&)>& prepare,
                              const std::function<void()>& call) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    std::filesystem::remove(database());
    make_table();
    const std::time_t now = std::time(nullptr);
    std::time_t ended = 0;
    prepare(now, name_at(now));
    run([&] {
      call();
      ended = std::time(nullptr);
    });
    if (ended == now) return;
  }
  FAIL() << "a second is too short here";
}

Rows Autosaves::rows() const {
  return query("select name, version, type, save_time, load_time from Config order by id");
}

Texts Autosaves::names() const {
  Texts result;
  for (const Texts& row : rows()) result.push_back(row[0]);
  return result;
}

SystemLog Autosaves::system_log() const {
  SystemLog lines = host.system_log;
  for (auto& [priority, text] : lines) text = without_now(text);
  return lines;
}

std::string Autosaves::without_now(std::string text) const {
  const std::time_t until = std::time(nullptr);
  for (std::time_t time = started; time <= until; ++time) {
    const std::string name = name_at(time);
    for (auto at = text.find(name); at != std::string::npos; at = text.find(name)) {
      text.replace(at, name.size(), "autosave-<now>");
    }
  }
  return Gateway::without_now(text);
}

}  // namespace test
