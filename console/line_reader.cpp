#include "line_reader.h"

#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <iostream>

#include "interrupt.h"
#include "text.h"

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
const Libedit* library = nullptr;

/// The tab key: completes the word as far as it is clear, and lists the candidates when it is not.
unsigned char complete(EditLine* editor, int) {
  const LineInfo* info = library->el_line(editor);
  const std::string line(info->buffer, info->cursor);
  const std::string begun = line.substr(line.find_last_of(" \t") + 1);
  const Arguments words = completion_of_words(line, begun);
  if (words.empty()) return CC_ERROR;
  const std::string end = common_beginning(words).substr(begun.size()) + (words.size() == 1 ? " " : "");
  if (!end.empty()) return library->el_insertstr(editor, end.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
  std::cout << '\n';
  for (const std::string& word : words) std::cout << word << '\n';
  std::cout.flush();
  return CC_REDISPLAY;
}

bool is_utf8 = false;

bool read_byte(std::string& bytes) {
  wait_for_input();
  char byte = '\0';
  if (interrupted() || ::read(STDIN_FILENO, &byte, 1) != 1) return false;
  bytes += byte;
  return true;
}

/// The editor's own way does not end at an interrupt. Returns the number of letters.
int read_letter(EditLine*, wchar_t* letter) {
  constexpr std::size_t kLongest = 4;
  std::string bytes;
  while (read_byte(bytes)) {
    const auto is_between = [](char byte, unsigned first, unsigned last) {
      return static_cast<unsigned char>(byte) >= first && static_cast<unsigned char>(byte) <= last;
    };
    // What was begun and does not go on is dropped.
    if (is_utf8 && !is_between(bytes.back(), 0x80, 0xbf)) bytes.erase(0, bytes.size() - 1);
    const std::size_t length = is_utf8 ? utf8_length(bytes, 0) : 1;
    if (length > 0) {
      *letter = static_cast<wchar_t>(code_point(bytes, 0, length));
      return 1;
    }
    if (!is_between(bytes.front(), 0xc2, 0xf4) || bytes.size() == kLongest) bytes.clear();
  }
  return 0;
}

std::string current_prompt;

char* prompt_of(EditLine*) { return current_prompt.data(); }

/// The keys that ask for a command of the line editor, some of which start other programs.
void unbind_commands(EditLine* editor) {
  // Where letters are not bytes, the last two are letters.
  for (const char* key : {"^[x", "^[X", "\\330", "\\370"}) {
    const bool is_letter = is_utf8 && key[0] == '\\';
    library->el_set(editor, EL_BIND, key, is_letter ? "ed-insert" : "ed-unassigned", nullptr);
  }
}

}  // namespace

LineReader::LineReader(Completion completion)
    : at_terminal_(isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
  if (!at_terminal_) return;
  completion_of_words = completion;
  const char* why = "";
  library = libedit(why);
  if (library != nullptr) {
    start_editor();
  } else {
    std::cerr << "confsave: lines cannot be edited: " << why << ".\n";
  }
}

void LineReader::start_editor() {
  HistEvent event = {};
  history_ = library->history_init();
  library->history(history_, &event, H_SETSIZE, kRemembered);
  // The editor takes the letters of the locale that it finds at its start.
  is_utf8 = locale_has_utf8() && std::setlocale(LC_CTYPE, "") != nullptr;
  editor_ = library->el_init("confsave", stdin, stdout, stderr);
  if (editor_ == nullptr) return;
  const auto set = library->el_set;
  set(editor_, EL_PROMPT, prompt_of);
  set(editor_, EL_EDITOR, "emacs");
  set(editor_, EL_SIGNAL, 1);
  set(editor_, EL_HIST, library->history, history_);
  set(editor_, EL_ADDFN, "complete", "Complete the word", complete);
  set(editor_, EL_BIND, "^I", "complete", nullptr);
  unbind_commands(editor_);
  library->el_wset(editor_, EL_GETCFN, read_letter);
}

LineReader::Answer LineReader::read_plainly(const char* prompt, std::string& line) const {
  if (at_terminal_) {
    std::cout << prompt << std::flush;
    wait_for_input();
    if (interrupted()) return Answer::interrupt;
  }
  const bool has_line = static_cast<bool>(std::getline(std::cin, line));
  if (at_terminal_) {
    // An end of input in the middle of a line is not the last one that can be typed.
    std::cin.clear();
    std::clearerr(stdin);
    if (interrupted()) return Answer::interrupt;
  }
  return has_line ? Answer::line : Answer::end;
}

LineReader::Answer LineReader::read(const char* prompt, std::string& line) {
  if (editor_ == nullptr) return read_plainly(prompt, line);
  current_prompt = prompt;
  int length = 0;
  const char* typed = library->el_gets(editor_, &length);
  if (typed == nullptr || length <= 0) return interrupted() ? Answer::interrupt : Answer::end;
  line.assign(typed, static_cast<std::size_t>(length));
  if (line.back() == '\n') line.pop_back();
  HistEvent event = {};
  if (!line.empty()) library->history(history_, &event, H_ENTER, line.c_str());
  return Answer::line;
}

}  // namespace console
