#pragma once

#include <string>

namespace console {

/// Reads the lines of the interactive shell. At a terminal they can be edited, completed with the tab key
/// and had back; what was typed is remembered in memory only and written nowhere. Otherwise they are read
/// as they come.
class LineReader {
 public:
  LineReader();

  bool at_terminal() const { return terminal_; }

  /// False at the end of input.
  bool read(const std::string& prompt, std::string& line) const;

 private:
  bool terminal_;
};

}  // namespace console
