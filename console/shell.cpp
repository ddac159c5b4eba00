#include <confsave.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <sstream>

#include "verbs.h"

namespace console {
namespace {

constexpr const char* kHelp =
    "list         show what is kept\n"
    "save NAME    keep the configuration as it is now\n"
    "delete NAME  delete a kept configuration\n"
    "load NAME    restore a kept configuration\n"
    "help         show this\n"
    "exit         leave\n";

Arguments words(const std::string& line) {
  std::istringstream stream(line);
  Arguments result;
  for (std::string word; stream >> word;) result.push_back(word);
  return result;
}

void run_on_name(const std::string& command, const std::string& name) {
  if (command == "save") ConfSave::App::save(name, ConfSave::conf_full);
  if (command == "delete") ConfSave::App::del(name);
  if (command == "load") ConfSave::App::load(name);
}

bool takes_name(const std::string& command) {
  return command == "save" || command == "delete" || command == "load";
}

void run_command(const Arguments& line) {
  if (line.size() == 1 && line[0] == "list") {
    ConfSave::App::lst();
  } else if (line.size() == 1 && line[0] == "help") {
    std::cout << kHelp;
  } else if (line.size() == 2 && takes_name(line[0])) {
    if (is_valid_name(line[1])) run_on_name(line[0], line[1]);
  } else {
    std::cout << "Type help to see the commands.\n";
  }
}

/// At a terminal, an end of input typed at a question ends that question only. The C stream below the
/// C++ one remembers it too.
void forget_end_of_input() {
  if (!std::cin.eof()) return;
  std::cout << '\n';
  std::cin.clear();
  std::clearerr(stdin);
}

}  // namespace

int shell() {
  const bool terminal = isatty(STDIN_FILENO) == 1;
  for (;;) {
    if (terminal) std::cout << "confsave> " << std::flush;
    std::string line;
    if (!std::getline(std::cin, line)) break;
    const Arguments command = words(line);
    if (command.size() == 1 && command[0] == "exit") return kDone;
    if (!command.empty()) run_command(command);
    if (terminal) forget_end_of_input();
  }
  if (terminal) std::cout << '\n';
  return kDone;
}

}  // namespace console
