#include "line_reader.h"

#include <editline/readline.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "shell_completion.h"

namespace console {
namespace {

/// Returns one match after the other, each a copy that the line editor frees.
char* next_match(const char* text, int number) {
  static Arguments matches;
  static std::size_t next = 0;
  if (number == 0) {
    matches = shell_candidates(std::string(rl_line_buffer, static_cast<std::size_t>(rl_point)), text);
    next = 0;
  }
  return next < matches.size() ? strdup(matches[next++].c_str()) : nullptr;
}

char** complete(const char* text, int, int) {
  rl_attempted_completion_over = 1;  // Never complete names of files.
  return rl_completion_matches(text, next_match);
}

}  // namespace

LineReader::LineReader() : terminal_(isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
  if (!terminal_) return;
  constexpr int kRemembered = 200;
  using_history();
  stifle_history(kRemembered);
  rl_attempted_completion_function = complete;
}

bool LineReader::read(const std::string& prompt, std::string& line) const {
  if (!terminal_) return static_cast<bool>(std::getline(std::cin, line));
  const std::unique_ptr<char, decltype(&std::free)> typed(readline(prompt.c_str()), std::free);
  if (typed == nullptr) return false;
  line = typed.get();
  if (!line.empty()) add_history(typed.get());
  return true;
}

}  // namespace console
