#include <confsave.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <sstream>

#include "advice.h"
#include "command_runner.h"
#include "conversation.h"
#include "destination.h"
#include "directories.h"
#include "exit_status.h"
#include "interrupt.h"
#include "line_reader.h"
#include "lock.h"
#include "names.h"
#include "permissions.h"
#include "shell_completion.h"
#include "snapshots.h"
#include "storage_wait.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

/// The shell's verbs work on snapshots that have no version.
constexpr ConfSave::int64 kNoVersion = 0;

bool was_saved_here(const std::string& name, std::time_t since) {
  return was_saved(name, kNoVersion, since);
}

/// Not App::lst(), which prints the control characters in a foreign name.
void list_all(const std::string&) { list({}); }

void save_as(const std::string& name) {
  warn_without_failover_files(ConfSave::conf_full);
  warn_of_acls(Destination(""));
  const auto old = find_exactly(name, kNoVersion);
  const std::time_t start = later_than(old ? old->save_time : 0);
  bool reported = false;
  {
    const Conversation conversation;
    reported = ConfSave::App::save(name, ConfSave::conf_full);
  }
  if (interrupted()) {
    std::cerr << "confsave: interrupted; '" << name << "' was not stored.\n";
  } else if (reported && !was_saved_here(name, start)) {
    std::cerr << "confsave: '" << name << "' was not stored.\n";
    print_next_step();
  } else if (!reported && failed_command()) {
    print_next_step();
  }
}

void delete_named(const std::string& name) {
  const auto config = find_exactly(name, kNoVersion);
  if (!config) {
    std::cerr << "confsave: nothing is stored as '" << name << "' without a version.\n";
    return;
  }
  if (!has_plain_name(*config)) return;
  ConfSave::App::del(name);
  if (!find_exactly(name, kNoVersion)) return;
  std::cerr << "confsave: '" << name << "' could not be deleted.\n";
  print_next_step();
}

/// True when the last message of the library is that it loads.
bool claims_to_have_loaded(const Conversation& conversation, const std::string& name) {
  const std::string claim = "Loading configuration '" + name + "'.\n";
  const std::string& output = conversation.output();
  return output.size() >= claim.size() &&
         output.compare(output.size() - claim.size(), claim.size(), claim) == 0;
}

void load_named(const std::string& name) {
  if (isatty(STDIN_FILENO) == 0) {
    std::cerr << "confsave: load asks questions, but standard input is not a terminal. "
              << "'confsave load --yes' asks none.\n";
    return;
  }
  const auto config = find_exactly(name, kNoVersion);
  if (!config) {
    std::cerr << "confsave: nothing is stored as '" << name << "' without a version.\n";
    return;
  }
  if (!has_plain_name(*config)) return;
  const Destination destination("");
  if (!destination.is_safe() || !can_be_restored(*config)) return;
  const std::time_t start = later_than(config->load_time);
  const Conversation conversation(was_saved_here);
  {
    const KeptPermissions permissions(destination);
    ConfSave::App::load(name);
  }
  if (conversation.printed("Aborted.\n")) {
    if (interrupted()) std::cerr << "confsave: interrupted; nothing was restored.\n";
  } else if (!claims_to_have_loaded(conversation, name)) {
    print_partial_restore();
  } else if (destination.sync() && !was_loaded(name, kNoVersion, start)) {
    print_missing_stamp(name);
  }
}

void show_help(const std::string&);

struct ShellVerb {
  const char* name;
  bool takes_name;
  bool is_exclusive;
  const char* effect;
  void (*run)(const std::string& name);
};

constexpr ShellVerb kShellVerbs[] = {
    {"list", false, false, "list the snapshots", list_all},
    {"save", true, true, "store the configuration as it is now", save_as},
    {"delete", true, false, "delete a snapshot", delete_named},
    {"load", true, true, "restore a snapshot", load_named},
    {"help", false, false, "print this list", show_help},
    {"exit", false, false, "leave the shell", nullptr},
};

void show_help(const std::string&) {
  for (const ShellVerb& verb : kShellVerbs) {
    std::string call = std::string(verb.name) + (verb.takes_name ? " NAME" : "");
    call.resize(13, ' ');
    std::cout << call << verb.effect << '\n';
  }
}

const ShellVerb* find_shell_verb(const std::string& name) {
  for (const ShellVerb& verb : kShellVerbs) {
    if (verb.name == name) return &verb;
  }
  return nullptr;
}

Arguments words_of(const std::string& line) {
  std::istringstream stream(line);
  Arguments words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

void run_shell_verb(const ShellVerb& verb, const std::string& name, const Options& options) {
  if (verb.takes_name && !check_name(name)) return;
  forget_failed_command();
  limit_storage_wait(std::chrono::seconds(options.wait));
  const InterruptCatcher catcher;
  OperationLock lock;
  if (verb.is_exclusive && lock.take(verb.name + (" " + name), options.wait) != kDone) return;
  if (verb.run == show_help) return verb.run(name);
  if (check_storage() != kDone) return;
  verb.run(name);
  if (storage_wait_expired()) print_storage_wait_expired();
  if (storage_is_damaged()) print_storage_damaged();
}

/// What is wrong with the words of a line, or an empty text.
std::string flaw_of(const ShellVerb* verb, const Arguments& words) {
  if (verb == nullptr) return "there is no verb '" + printable(words.front()) + "'";
  const std::size_t expected = verb->takes_name ? 2 : 1;
  if (words.size() > expected) return "'" + printable(words[expected]) + "' was not expected";
  return words.size() < expected ? std::string(verb->name) + " takes a name" : "";
}

/// False after the verb that leaves the shell.
bool follow(const Arguments& words, const Options& options) {
  if (words.empty()) return true;
  const ShellVerb* verb = find_shell_verb(words.front());
  if (const std::string flaw = flaw_of(verb, words); !flaw.empty()) {
    std::cerr << "confsave: " << flaw << ". Type help for the list of verbs.\n";
    return true;
  }
  if (verb->run == nullptr) return false;
  run_shell_verb(*verb, words.back(), options);
  return true;
}

/// The end of input typed at a question ends that question only. The C stream remembers it, too.
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
    for (const ShellVerb& verb : kShellVerbs) all.emplace_back(verb.name);
  } else if (const ShellVerb* verb = find_shell_verb(before.front());
             before.size() == 1 && verb != nullptr && verb->takes_name) {
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
  static LineReader reader;
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
