#include "support/autosaves.h"

#include <filesystem>
#include <iomanip>
#include <sstream>

namespace test {
namespace {

/// The name of an autosave at `time` in a zone that is `offset` seconds ahead of UTC.
std::string name_at(std::time_t time, int offset = 0) {
  time += offset;
  std::tm parts = {};
  gmtime_r(&time, &parts);
  std::ostringstream name;
  name << "autosave-" << std::put_time(&parts, "%Y-%m-%d-%H-%M-%S");
  return name.str();
}

}  // namespace

void Autosaves::run(const std::function<void()>& call) {
  host.system_log.clear();
  const auto timed = [&] {
    call();
    ended_ = std::time(nullptr);
  };
  EXPECT_EQ(dialogue("", timed), "");
}

bool Autosaves::check_old() {
  bool old = false;
  run([&] { old = ConfSave::CheckOld(); });
  return old;
}

void Autosaves::in_one_second(const std::function<void(const std::string&)>& prepare,
                              const std::function<void()>& call) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    std::filesystem::remove(database());
    make_table();
    const std::time_t now = std::time(nullptr);
    prepare(name_at(now));
    run(call);
    if (ended_ == now) return;
  }
  FAIL() << "a second is too short here";
}

bool Autosaves::check_old_with(RowSpec row, ConfSave::int64 age) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    std::filesystem::remove(database());
    const std::time_t now = std::time(nullptr);
    row.save_time = std::to_string(now - age);
    put(row);
    const bool old = check_old();
    if (ended_ == now) return old;
  }
  ADD_FAILURE() << "a second is too short here";
  return false;
}

Rows Autosaves::rows() const {
  Rows result = Database(database())
                    .query("select name, version, type, save_time, load_time from Config order by id");
  for (Texts& row : result) {
    for (std::string& text : row) text = shown(text);
  }
  return result;
}

Texts Autosaves::names() const {
  Texts result;
  for (const Texts& row : rows()) result.push_back(row[0]);
  return result;
}

Texts Autosaves::statements() const {
  Texts texts = recorder.statements();
  for (std::string& text : texts) text = shown(text);
  return texts;
}

LogRecords Autosaves::records() const {
  LogRecords result = host.records;
  for (LogRecord& record : result) record.text = shown(record.text);
  return result;
}

SystemLog Autosaves::system_log() const {
  SystemLog lines = host.system_log;
  for (auto& [priority, text] : lines) text = shown(text);
  return lines;
}

std::string Autosaves::shown(std::string text) const {
  const std::string shown_name = "autosave-<now>";
  const std::time_t until = std::time(nullptr);
  for (std::time_t time = started; time <= until; ++time) {
    const std::string name = name_at(time, zone);
    for (auto at = text.find(name); at != std::string::npos; at = text.find(name)) {
      text.replace(at, name.size(), shown_name);
    }
  }
  return without_now(text);
}

}  // namespace test
