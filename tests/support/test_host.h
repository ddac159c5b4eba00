#pragma once

// The host process of the tests. It defines my_system, the log getter and slput, records every call, and
// can answer as no gateway would. Commands run for real unless a test decides otherwise. Everything else in
// a test is real.

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kelmor/log.h"

namespace test {

/// One log record. The text shows integers in decimal; `widths` holds their widths in bytes, in order.
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
  /// The host of this process.
  static TestHost& instance();

  /// Restores the state of a new process: log level 4, all entry points, commands run for real.
  void reset();

  int log_level = 0;

  /// The entry points of the log. A null entry point is missing.
  KorvLogProps entry_points = {};

  /// Makes the log getter return null.
  bool no_log = false;

  /// Called before each command. A number becomes the result of the command, which does not run. May throw.
  std::function<std::optional<int>(const std::string& command)> on_command;

  /// Called with the function's name when a log record begins. May throw.
  std::function<void(const std::string& function)> on_record;

  /// Called after each log record. Must not throw.
  std::function<void()> on_recorded;

  /// Called after each slput. May throw.
  std::function<void()> on_system_log;

  LogRecords records;
  std::vector<int> lines;  ///< the line number of each record
  std::vector<std::string> commands;
  std::vector<std::pair<int, std::string>> system_log;
  std::vector<std::string> paths;       ///< the variables that the platform read to find a directory
  std::vector<std::thread::id> askers;  ///< who asked the platform for the names of files
};

/// Answers `result` to every command that begins with `prefix`, and lets all others run.
std::function<std::optional<int>(const std::string&)> fail_commands(std::string prefix, int result);

}  // namespace test
