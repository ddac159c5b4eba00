#pragma once

#include <string>

namespace console {

/// Reads the lines of the interactive shell. At a terminal a line can be edited and completed with the tab
/// key, and earlier lines recalled; they are kept in memory only.
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
