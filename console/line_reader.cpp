#include "line_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "interrupt.h"

namespace console {
namespace {

constexpr int kRemembered = 200;

/// What all words begin with. There is at least one.
std::string common_beginning(const Arguments& words) {
  std::string common = words.front();
  for (const std::string& word : words) {
    common.erase(std::mismatch(common.begin(), common.end(), word.begin(), word.end()).first, common.end());
  }
  return common;
}

LineReader::Completion completion_of_words = nullptr;

/// The tab key: completes the word as far as it is clear, and lists the candidates when it is not.
unsigned char complete(EditLine* editor, int) {
  const LineInfo* info = el_line(editor);
  const std::string line(info->buffer, info->cursor);
  const std::string begun = line.substr(line.find_last_of(" \t") + 1);
  const Arguments words = completion_of_words(line, begun);
  if (words.empty()) return CC_ERROR;
  const std::string end = common_beginning(words).substr(begun.size()) + (words.size() == 1 ? " " : "");
  if (!end.empty()) return el_insertstr(editor, end.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
  std::cout << '\n';
  for (const std::string& word : words) std::cout << word << '\n';
  std::cout.flush();
  return CC_REDISPLAY;
}

/// The editor's own way does not end at an interrupt. Returns the number of letters.
int read_letter(EditLine*, wchar_t* letter) {
  wait_for_input();
  unsigned char byte = 0;
  if (interrupted() || ::read(STDIN_FILENO, &byte, 1) != 1) return 0;
  *letter = static_cast<wchar_t>(byte);
  return 1;
}

std::string current_prompt;

char* prompt_of(EditLine*) { return current_prompt.data(); }

/// The keys that ask for a command of the line editor, some of which start other programs.
void unbind_commands(EditLine* editor) {
  for (const char* key : {"^[x", "^[X", "\\330", "\\370"}) {
    el_set(editor, EL_BIND, key, "ed-unassigned", nullptr);
  }
}

}  // namespace

LineReader::LineReader(Completion completion) {
  completion_of_words = completion;
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) return;
  HistEvent event = {};
  history_ = history_init();
  history(history_, &event, H_SETSIZE, kRemembered);
  editor_ = el_init("confsave", stdin, stdout, stderr);
  if (editor_ == nullptr) return;
  el_set(editor_, EL_PROMPT, prompt_of);
  el_set(editor_, EL_EDITOR, "emacs");
  el_set(editor_, EL_SIGNAL, 1);
  el_set(editor_, EL_HIST, history, history_);
  el_set(editor_, EL_ADDFN, "complete", "Complete the word", complete);
  el_set(editor_, EL_BIND, "^I", "complete", nullptr);
  unbind_commands(editor_);
  el_wset(editor_, EL_GETCFN, read_letter);
}

LineReader::Answer LineReader::read(const char* prompt, std::string& line) {
  if (!at_terminal()) return std::getline(std::cin, line) ? Answer::line : Answer::end;
  current_prompt = prompt;
  int length = 0;
  const char* typed = el_gets(editor_, &length);
  if (typed == nullptr || length <= 0) return interrupted() ? Answer::interrupt : Answer::end;
  line.assign(typed, static_cast<std::size_t>(length));
  if (line.back() == '\n') line.pop_back();
  HistEvent event = {};
  if (!line.empty()) history(history_, &event, H_ENTER, line.c_str());
  return Answer::line;
}

}  // namespace console
