#include "shell.h"

#include <confsave.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <sstream>

#include "commands.h"
#include "conversation.h"
#include "exit_status.h"
#include "gateway.h"
#include "line_reader.h"
#include "lock.h"
#include "names.h"
#include "parents.h"

namespace console {
namespace {

/// These commands work on configurations of no version.
constexpr ConfSave::int64 kNoVersion = 0;

bool was_saved_here(const std::string& name, std::time_t since) {
  return was_saved(name, kNoVersion, since);
}

/// Not App::lst(), which would print whatever stands in a name.
void list_all(const std::string&) { list({}); }

void save_as(const std::string& name) {
  warn_without_failover_files(ConfSave::conf_full);
  const auto old = find_exactly(name, kNoVersion);
  const std::time_t start = later_than(old ? old->save_time : 0);
  bool said_so = false;
  {
    const Conversation conversation;
    said_so = ConfSave::App::save(name, ConfSave::conf_full);
  }
  if (said_so && !was_saved_here(name, start)) {
    std::cerr << "confsave: '" << name << "' was not stored.\n";
    tell_what_to_look_at();
  }
}

void delete_named(const std::string& name) {
  if (!find_exactly(name, kNoVersion)) {
    std::cerr << "confsave: nothing is stored as '" << name << "' without a version.\n";
    return;
  }
  ConfSave::App::del(name);
  if (!find_exactly(name, kNoVersion)) return;
  std::cerr << "confsave: '" << name << "' could not be deleted.\n";
  tell_what_to_look_at();
}

/// True when the library ended with its word that it loads, and without another one.
bool claims_to_have_loaded(const Conversation& conversation, const std::string& name) {
  const std::string claim = "Loading configuration '" + name + "'.\n";
  const std::string& output = conversation.output();
  return output.size() >= claim.size() &&
         output.compare(output.size() - claim.size(), claim.size(), claim) == 0;
}

void load_named(const std::string& name) {
  if (isatty(STDIN_FILENO) == 0) {
    std::cerr
        << "confsave: load asks questions, and standard input is no terminal; confsave load --yes asks "
           "none.\n";
    return;
  }
  const auto config = find_exactly(name, kNoVersion);
  if (!config) {
    std::cerr << "confsave: nothing is stored as '" << name << "' without a version.\n";
    return;
  }
  if (!can_be_restored(*config)) return;
  const std::time_t start = later_than(config->load_time);
  const ParentDirectories parents("");
  const Conversation conversation(was_saved_here);
  ConfSave::App::load(name);
  if (claims_to_have_loaded(conversation, name) && !was_loaded(name, kNoVersion, start)) {
    std::cerr << "confsave: that '" << name << "' was loaded could not be noted in the storage.\n";
    tell_what_to_look_at();
  }
}

void show_help(const std::string&);

struct Command {
  const char* name;
  bool takes_name;
  bool is_exclusive;
  const char* effect;
  void (*run)(const std::string& name);
};

constexpr Command kCommands[] = {
    {"list", false, false, "show what is stored", list_all},
    {"save", true, true, "store the configuration as it is now", save_as},
    {"delete", true, false, "delete a stored configuration", delete_named},
    {"load", true, true, "restore a stored configuration", load_named},
    {"help", false, false, "show this", show_help},
    {"exit", false, false, "leave", nullptr},
};

void show_help(const std::string&) {
  for (const Command& command : kCommands) {
    std::string call = std::string(command.name) + (command.takes_name ? " NAME" : "");
    call.resize(13, ' ');
    std::cout << call << command.effect << '\n';
  }
}

const Command* find_command(const std::string& name) {
  for (const Command& command : kCommands) {
    if (command.name == name) return &command;
  }
  return nullptr;
}

Arguments words_of(const std::string& line) {
  std::istringstream stream(line);
  Arguments words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

void run_command(const Command& command, const std::string& name, const Options& options) {
  if (command.takes_name && !check_name(name)) return;
  OperationLock lock;
  if (command.is_exclusive && lock.take(command.name + (" " + name), options.wait) != kDone) return;
  if (command.run == show_help || check_storage()) command.run(name);
}

/// False when there is nothing more to do.
bool follow(const Arguments& words, const Options& options) {
  if (words.empty()) return true;
  const Command* command = find_command(words.front());
  if (command == nullptr || words.size() != (command->takes_name ? 2U : 1U)) {
    std::cout << "Type help to see the commands.\n";
    return true;
  }
  if (command->run == nullptr) return false;
  run_command(*command, words.back(), options);
  return true;
}

/// An end of input typed at a question ends that question only. The C stream below the C++ one remembers
/// it too.
void forget_end_of_input() {
  if (std::feof(stdin) == 0) return;
  std::cout << '\n';
  std::cin.clear();
  std::clearerr(stdin);
}

}  // namespace

Arguments shell_candidates(const std::string& line, const std::string& begun) {
  const Arguments before = words_of(line.substr(0, line.size() - begun.size()));
  Arguments all;
  if (before.empty()) {
    for (const Command& command : kCommands) all.emplace_back(command.name);
  } else if (const Command* command = find_command(before.front());
             before.size() == 1 && command != nullptr && command->takes_name) {
    all = stored_names();
  }
  Arguments matching;
  for (const std::string& word : all) {
    if (word.compare(0, begun.size(), begun) == 0) matching.push_back(word);
  }
  return matching;
}

int shell(const Options& options) {
  if (!check_directories()) return kFailed;
  LineReader reader;
  std::string line;
  while (reader.read("confsave> ", line)) {
    if (!follow(words_of(line), options)) return kDone;
    std::cout.flush();
    if (reader.at_terminal()) forget_end_of_input();
  }
  if (reader.at_terminal()) std::cout << '\n';
  return kDone;
}

}  // namespace console
