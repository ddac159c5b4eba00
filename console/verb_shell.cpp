#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "completion.h"
#include "exit_status.h"
#include "interrupt.h"
#include "line_reader.h"
#include "text.h"
#include "verb_functions.h"
#include "verb_table.h"
#include "verbs.h"

namespace console {
namespace {

/// In a process of its own, which an interrupt may end.
[[noreturn]] void run_as_child(const Arguments& words, bool at_terminal) {
  // The line editor's: a verb prints and compares as it does by itself.
  static_cast<void>(std::setlocale(LC_CTYPE, "C"));
  // The lines that follow are for the shell.
  if (!at_terminal) {
    const int nothing = open("/dev/null", O_RDONLY);
    if (nothing != -1) dup2(nothing, STDIN_FILENO);
  }
  std::exit(run(words));
}

void run_line(const Arguments& words, bool at_terminal) {
  std::cout.flush();
  const pid_t child = fork();
  if (child == -1) {
    std::cerr << "confsave: the verb cannot be run: " << std::strerror(errno) << ".\n";
    return;
  }
  if (child == 0) {
    static_cast<void>(std::signal(SIGINT, SIG_DFL));
    run_as_child(words, at_terminal);
  }
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  if (!WIFSIGNALED(status)) return;
  const Verb* verb = find_verb(words.front());
  // "revert --when-due" ends at once and prints nothing.
  const bool waits = std::find(words.begin(), words.end(), "--when-due") != words.end();
  const bool has_said_so = verb != nullptr && (verb->traits & kInterruptible) != 0 && !waits;
  if (WTERMSIG(status) == SIGINT) {
    if (!has_said_so) std::cout << '\n';
  } else {
    std::cerr << "confsave: the verb was ended: " << strsignal(WTERMSIG(status)) << ".\n";
  }
}

/// False after the word that leaves the shell.
bool follow(const std::string& line, bool at_terminal) {
  const auto words = words_of(line);
  if (!words) {
    std::cerr << "confsave: a quotation mark has no partner.\n";
    return true;
  }
  if (words->empty()) return true;
  const std::string& first = words->front();
  if (words->size() == 1 && (first == "exit" || first == "quit")) return false;
  if (first == "shell") {
    std::cerr << "confsave: this is the shell.\n";
  } else {
    run_line(*words, at_terminal);
  }
  return true;
}

/// What the tab key offers for the last word of a line, which begins with `begun`.
Arguments complete(const std::string& line, const std::string& begun) {
  const auto before = words_of(line.substr(0, line.size() - begun.size()));
  if (!before) return {};
  Arguments all = candidates(*before);
  if (before->empty()) all.insert(all.end(), {"help", "exit", "quit"});
  Arguments matching;
  for (const std::string& word : all) {
    if (word.compare(0, begun.size(), begun) == 0) matching.push_back(word);
  }
  return matching;
}

}  // namespace

int shell(const Options&) {
  static LineReader reader(complete);
  const InterruptCatcher catcher;
  for (;;) {
    std::string line;
    switch (reader.read("confsave> ", line)) {
      case LineReader::Answer::line:
        if (!follow(line, reader.at_terminal())) return kDone;
        break;
      case LineReader::Answer::interrupt:
        std::cout << '\n';
        break;
      case LineReader::Answer::end:
        if (reader.at_terminal()) std::cout << '\n';
        return kDone;
    }
    forget_interrupt();
    std::cout.flush();
  }
}

}  // namespace console
