#include "verbs.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <iostream>

#include "completion.h"
#include "exit_status.h"
#include "interrupt.h"
#include "recovering.h"
#include "text.h"
#include "verb_functions.h"
#include "verb_table.h"

namespace console {
namespace {

void add_operand(CLI::App& parser, const Operand& operand, Options& options) {
  parser
      .add_option_function<std::string>(
          operand.name, [&operand, &options](const std::string& value) { operand.set(value, options); },
          operand.effect)
      ->type_name("")
      ->required(operand.required);
}

void add_option(CLI::App& parser, const Verb& verb, const Option& option, Options& options) {
  if (option.value[0] == '\0') {
    parser.add_flag_callback(
        option.name, [&option, &options] { option.set("", options); }, option.effect);
    return;
  }
  parser
      .add_option_function<std::string>(
          option.name, [&option, &options](const std::string& value) { option.set(value, options); },
          option.effect)
      ->type_name(option.value)
      ->required(lists(verb.required, option.name));
}

void add_verb(CLI::App& program, const Verb& verb, Options& options) {
  CLI::App* parser = program.add_subcommand(verb.name, verb.effect);
  for (const Operand* operand : {verb.first, verb.second}) {
    if (operand != nullptr) add_operand(*parser, *operand, options);
  }
  for (const Option& option : option_table()) {
    if (lists(verb.options, option.name)) add_option(*parser, verb, option, options);
  }
}

int refuse(const std::string& problem, const std::string& help) {
  std::cerr << "confsave: " << printable(problem) << ". See '" << help << "'.\n";
  return kUsage;
}

/// Output that cannot be written is a failure, whatever was done.
int flush(int status, const char* consequence) {
  std::cout.flush();
  if (std::cout || (status != kDone && status != kFindings)) return status;
  std::cerr << "confsave: standard output could not be written" << consequence << ".\n";
  return kFailed;
}

int run_verb(const Verb& verb, Options options) {
  const unsigned wait = lists(verb.options, "--wait") ? options.wait : kWaitOfReaders;
  options.deadline = Deadline(wait);
  const bool changes = (verb.traits & kChanging) != 0;
  const bool has_reverted = (verb.traits & kSettling) == 0 && settle_pending(options, !changes);
  // That is no work of the verb.
  if (has_reverted) options.deadline = Deadline(wait);
  if (changes && !options.dry_run) settle_interrupted(options);
  const bool is_done = (verb.traits & (kInterruptible | kChanging)) != 0 && !options.dry_run;
  const char* consequence = is_done ? "; what was asked for is done" : "";
  if ((verb.traits & kInterruptible) == 0) return flush(verb.run(options), consequence);
  const int status = [&] {
    const InterruptCatcher catcher;
    return verb.run(options);
  }();
  if (interrupted() && status != kDone) {
    std::cout.flush();
    // The caller sees what ended the program.
    static_cast<void>(raise(SIGINT));
  }
  return flush(status, consequence);
}

bool takes_value(const Verb& verb, const std::string& word) {
  const Option* option = find_option(word);
  return option != nullptr && option->value[0] != '\0' && lists(verb.options, word);
}

/// "--comment=" as two words: the parser would take the next word for the value.
Arguments with_empty_values(const Verb& verb, const Arguments& arguments) {
  Arguments words;
  auto word = arguments.begin();
  for (; word != arguments.end() && *word != "--"; ++word) {
    const std::size_t size = word->size();
    const bool ends = size > 0 && word->back() == '=' && takes_value(verb, word->substr(0, size - 1));
    words.push_back(ends ? word->substr(0, size - 1) : *word);
    if (ends) words.emplace_back();
    // A value may look like an option.
    if (takes_value(verb, *word) && word + 1 != arguments.end()) words.push_back(*++word);
  }
  words.insert(words.end(), word, arguments.end());
  return words;
}

/// The parser drops the operand "++", except behind "--": then all operands are put there.
Arguments with_plain_operands(const Verb& verb, const Arguments& arguments) {
  Arguments words = {arguments.front()};
  Arguments operands;
  auto word = arguments.begin() + 1;
  for (; word != arguments.end() && *word != "--"; ++word) {
    (word->substr(0, 1) == "-" ? words : operands).push_back(*word);
    if (takes_value(verb, *word) && word + 1 != arguments.end()) words.push_back(*++word);
  }
  if (std::find(operands.begin(), operands.end(), "++") == operands.end()) return arguments;
  words.emplace_back("--");
  words.insert(words.end(), operands.begin(), operands.end());
  words.insert(words.end(), word == arguments.end() ? word : word + 1, arguments.end());
  return words;
}

int parse_and_run(const Verb& verb, const Arguments& given) {
  const Arguments arguments = with_plain_operands(verb, with_empty_values(verb, given));
  const std::string help = std::string("confsave ") + verb.name + " --help";
  Options options;
  CLI::App program("", "confsave");
  add_verb(program, verb, options);
  try {
    program.parse(Arguments(arguments.rbegin(), arguments.rend()));
  } catch (const CLI::CallForHelp&) {
    std::cout << program.help();
    return kDone;
  } catch (const CLI::ParseError& error) {
    // An unknown word is a better hint than a missing one.
    const Arguments unknown = program.remaining(true);
    const bool has_dashes = unknown.size() > 1 && unknown.front() == "--";
    return refuse(unknown.empty() ? error.what() : "'" + unknown[has_dashes ? 1 : 0] + "' was not expected",
                  help);
  }
  if (const std::string problem = contradiction(verb, options); !problem.empty())
    return refuse(problem, help);
  if (options.version) options.snapshot.version = options.version;
  return run_verb(verb, options);
}

/// The verb with its operands, and with the options that it must have.
std::string call_of(const Verb& verb) {
  std::string call = verb.name;
  for (const Operand* operand : {verb.first, verb.second}) {
    if (operand == nullptr) continue;
    call.append(operand->required ? " " : " [").append(operand->name).append(operand->required ? "" : "]");
  }
  for (const std::string& option : split(verb.required)) {
    call.append(" ").append(option).append(" ").append(find_option(option)->value);
  }
  return call;
}

int print_help(std::ostream& out, int status) {
  out << "Keep named snapshots of this gateway's configuration.\n\nconfsave VERB [OPTION...]\n\n";
  for (const Verb& verb : verbs()) {
    std::string call = "  " + call_of(verb);
    call.resize(std::max<std::size_t>(call.size() + 2, 24), ' ');
    out << call << verb.effect << '\n';
  }
  out << "\n'confsave VERB --help' lists the options of a verb; 'man confsave' is the manual.\n";
  return status;
}

/// For the completion of a command line in a shell: a candidate, and behind a tab what a verb or option
/// does. No candidate before the tab stands for any file.
int print_candidates(const Arguments& arguments) {
  const Arguments words(arguments.begin() + 1, arguments.end());
  for (const std::string& candidate : candidates(words)) {
    std::cout << candidate;
    const Option* option = find_option(candidate);
    if (asks_for_verb(words)) {
      std::cout << '\t' << find_verb(candidate)->effect;
    } else if (option != nullptr) {
      std::cout << '\t' << option->effect;
    }
    std::cout << '\n';
  }
  if (asks_for_file(words)) std::cout << "\ta file\n";
  return kDone;
}

/// "help VERB" is "VERB --help".
Arguments with_help_as_option(Arguments words) {
  if (words.empty() || words.front() != "help") return words;
  words.erase(words.begin());
  words.emplace_back("--help");
  return words;
}

int run_checked(const Arguments& arguments) {
  if (arguments.empty()) return print_help(std::cerr, kUsage);
  const std::string& first = arguments.front();
  if (first == "--complete") return print_candidates(arguments);
  const bool asks_for_help = first == "--help" || first == "-h";
  if (asks_for_help || first == "--version") {
    if (arguments.size() > 1) return refuse("'" + arguments[1] + "' was not expected", "confsave --help");
    return asks_for_help ? print_help(std::cout, kDone) : version({});
  }
  if (const Verb* verb = find_verb(first)) return parse_and_run(*verb, arguments);
  return refuse("there is no verb '" + first + "'", "confsave --help");
}

}  // namespace

int run(const Arguments& arguments) {
  int status = kFailed;
  try {
    status = run_checked(with_help_as_option(arguments));
  } catch (const std::exception& error) {
    std::cerr << "confsave: failed: " << printable(error.what()) << ".\n";
  }
  return flush(status, "");
}

}  // namespace console
