#pragma once

// The host process of the tests: it defines my_system, the log getter and slput itself, notes what it is
// told, and can answer in another way than a gateway would. Commands run for real unless a test says
// otherwise. Everything else in a test is the real thing.

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelmor/log.h"

namespace test {

/// One log record, integers as decimal digits in the text and their byte widths beside it, in order.
struct LogRecord {
  int level = 0;
  std::string signature;
  std::string name;
  std::string source;
  std::string text;
  std::vector<unsigned> widths;

  bool operator==(const LogRecord& other) const;
};

std::ostream& operator<<(std::ostream& out, const LogRecord& record);

using LogRecords = std::vector<LogRecord>;

class TestHost {
 public:
  /// The one of this process.
  static TestHost& instance();

  /// As a new process would have it: log level 4, all entry points, commands run for real.
  void reset();

  int log_level = 0;

  /// The entry points that the library is given. Set one to null to leave it out.
  KorvLogProps entry_points = {};

  /// Give the library no log properties at all.
  bool no_log = false;

  /// Asked before each command. A number is the command's result, and it is not run. May throw.
  std::function<std::optional<int>(const std::string& command)> on_command;

  /// Called when a record of a function begins, before it is noted. May throw.
  std::function<void(const std::string& function)> on_record;

  /// Called when a record is over and noted. Must not throw.
  std::function<void()> on_recorded;

  /// Called for each slput, after it was noted. May throw.
  std::function<void()> on_system_log;

  LogRecords records;
  std::vector<int> lines;  ///< the line number of each record
  std::vector<std::string> commands;
  std::vector<std::pair<int, std::string>> system_log;
  std::vector<std::string> paths;  ///< the variables in which the platform looked for a directory

  /// The records of this level and below.
  LogRecords records_up_to(int level) const;
};

/// Answers `result` to every command that begins with `prefix`, and lets all others run.
std::function<std::optional<int>(const std::string&)> fail_commands(std::string prefix, int result);

}  // namespace test
