#pragma once

#include <string>

#include "libedit.h"
#include "words.h"

namespace console {

/// Reads the lines of the interactive shell. At a terminal, unless libedit is missing, a line can be edited
/// and completed with the tab key, and earlier lines recalled; they are kept in memory only. The user's
/// configuration of the line editor is not read, and no key starts another program.
class LineReader {
 public:
  /// The words that complete `begun`, the last word of `line`.
  using Completion = Arguments (*)(const std::string& line, const std::string& begun);

  explicit LineReader(Completion completion);
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader() = default;

  enum class Answer { line, interrupt, end };

  bool at_terminal() const { return at_terminal_; }

  Answer read(const char* prompt, std::string& line);

 private:
  void start_editor();
  Answer read_plainly(const char* prompt, std::string& line) const;

  bool at_terminal_;
  // Neither is ended: the editor forgets what it has allocated for the tab key. There is one LineReader.
  History* history_ = nullptr;
  EditLine* editor_ = nullptr;
};

}  // namespace console
