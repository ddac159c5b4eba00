#include "support/test_host.h"

#include <dlfcn.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <ostream>
#include <tuple>
#include <utility>

#include "kelmor/paths.h"
#include "kelmor/system.h"

namespace test {
namespace {

// A record belongs to the thread that writes it; what is recorded belongs to all.
thread_local LogRecord current;
thread_local int current_line = 0;
std::mutex recording;

template <class Value>
void record(std::vector<Value>& values, Value value) {
  const std::lock_guard lock(recording);
  values.push_back(std::move(value));
}

void begin(int level, const ClUnilogFname& function, const char* source, int line) {
  if (const auto& hook = TestHost::instance().on_record) hook(function.Name());
  current = {level, function.Signature(), function.Name(), source, "", {}};
  current_line = line;
}

void text(const char* piece) { current.text += piece; }

void integer(const void* value, unsigned width) {
  std::int64_t number = 0;
  if (width == sizeof(std::int32_t)) {
    std::int32_t narrow = 0;
    std::memcpy(&narrow, value, sizeof narrow);
    number = narrow;
  } else if (width == sizeof number) {
    std::memcpy(&number, value, sizeof number);
  } else {
    std::abort();  // The library logs no other width.
  }
  current.text += std::to_string(number);
  current.widths.push_back(width);
}

void end() {
  record(TestHost::instance().records, current);
  record(TestHost::instance().lines, current_line);
  if (const auto& hook = TestHost::instance().on_recorded) hook();
}

std::string format(const char* pattern, std::va_list arguments) {
  char text[65536];
  std::vsnprintf(text, sizeof text, pattern, arguments);
  return text;
}

}  // namespace

bool LogRecord::operator==(const LogRecord& other) const {
  const auto all = [](const LogRecord& r) {
    return std::tie(r.level, r.signature, r.name, r.source, r.text, r.widths);
  };
  return all(*this) == all(other);
}

std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
  out << "{" << record.level << ", \"" << record.signature << "\", \"" << record.name << "\", \""
      << record.source << "\", \"" << record.text << "\", {";
  for (const unsigned width : record.widths) out << " " << width;
  return out << " }}";
}

TestHost& TestHost::instance() {
  static TestHost host;
  return host;
}

void TestHost::reset() {
  log_level = 4;
  entry_points = {0, begin, text, text, integer, end};
  no_log = false;
  on_command = nullptr;
  on_record = nullptr;
  on_recorded = nullptr;
  on_system_log = nullptr;
  records.clear();
  lines.clear();
  commands.clear();
  system_log.clear();
  paths.clear();
  askers.clear();
}

std::function<std::optional<int>(const std::string&)> fail_commands(std::string prefix, int result) {
  return [prefix = std::move(prefix), result](const std::string& command) -> std::optional<int> {
    if (command.compare(0, prefix.size(), prefix) == 0) return result;
    return std::nullopt;
  };
}

}  // namespace test

int my_system(const char* pattern, ...) {
  std::va_list arguments;
  va_start(arguments, pattern);
  const std::string command = test::format(pattern, arguments);
  va_end(arguments);

  auto& host = test::TestHost::instance();
  // The pattern itself: the library must pass the command as the format.
  test::record(host.commands, std::string(pattern));
  if (host.on_command) {
    if (const std::optional<int> result = host.on_command(command)) return *result;
  }
  // The platform's own, which this definition hides.
  static const auto real = reinterpret_cast<int (*)(const char*, ...)>(dlsym(RTLD_NEXT, "my_system"));
  return real("%s", command.c_str());
}

const KorvLogProps* KorvLog_GetProps_cl_module(int) {
  auto& host = test::TestHost::instance();
  if (host.no_log) return nullptr;
  host.entry_points.level = host.log_level;
  return &host.entry_points;
}

void slput(int priority, const char* pattern, ...) {
  std::va_list arguments;
  va_start(arguments, pattern);
  auto& host = test::TestHost::instance();
  test::record(host.system_log, {priority, test::format(pattern, arguments)});
  va_end(arguments);
  if (host.on_system_log) host.on_system_log();
}

/// Records the name and passes the call on.
char* secure_getenv(const char* name) noexcept {
  static const auto real = reinterpret_cast<char* (*)(const char*)>(dlsym(RTLD_NEXT, "secure_getenv"));
  const std::string variable = name;
  if (variable.find("KELMOR_LOG") == std::string::npos)
    test::record(test::TestHost::instance().paths, variable);
  return real(name);
}

/// Records the thread and passes the call on.
std::string toolsunix::FilenameConvertor::GetShortFilename(FileId id) const {
  using Function = std::string (*)(const FilenameConvertor*, FileId);
  static const auto real = reinterpret_cast<Function>(
      dlsym(RTLD_NEXT, "_ZNK9toolsunix17FilenameConvertor16GetShortFilenameB5cxx11ENS_6FileIdE"));
  test::record(test::TestHost::instance().askers, std::this_thread::get_id());
  return real(this, id);
}
