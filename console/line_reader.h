#pragma once

#include <histedit.h>

#include <memory>
#include <string>

namespace console {

/// Reads the lines of the interactive shell. At a terminal a line can be edited and completed with the tab
/// key, and earlier lines recalled; they are kept in memory only. The user's configuration of the line
/// editor is not read, and no key starts another program.
class LineReader {
 public:
  LineReader();

  bool at_terminal() const { return editor_ != nullptr; }

  /// False at the end of input.
  bool read(const char* prompt, std::string& line);

 private:
  struct End {
    void operator()(EditLine* editor) const { el_end(editor); }
    void operator()(History* history) const { history_end(history); }
  };

  std::unique_ptr<History, End> history_;
  std::unique_ptr<EditLine, End> editor_;
};

}  // namespace console
