#include "verbs.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <iostream>
#include <limits>
#include <sstream>

#include "exit_status.h"
#include "interrupt.h"
#include "names.h"
#include "text.h"
#include "storage_schema.h"
#include "storage_wait.h"
#include "verb_functions.h"

namespace console {
namespace {

/// What stands behind a verb.
enum class Operand { kNone, kName, kPattern };

struct Verb {
  const char* name;
  Operand operand;
  bool catches_interrupts;  ///< prints what an interrupt left behind, and then ends by it
  const char* options;      ///< names from kOptions, each followed by a blank
  const char* required;
  const char* effect;
  int (*run)(const Options& options);
};

constexpr Verb kVerbs[] = {
    {"list", Operand::kNone, false, "--upto --sort --all --json --long --wait ", "", "list the snapshots",
     list},
    {"save", Operand::kName, true, "--type --version --force --wait ", "",
     "store the configuration as it is now", save},
    {"load", Operand::kPattern, true, "--version --target --yes --force --wait ", "", "restore a snapshot",
     load},
    {"delete", Operand::kName, false, "--version --wait ", "", "delete a snapshot", remove},
    {"autosave", Operand::kNone, true, "--max --type --wait ", "--max ",
     "store the configuration under a name made from the time", autosave},
    {"check-old", Operand::kNone, false, "--wait ", "", "say whether an autosave is older than 31 days",
     check_old},
    {"shell", Operand::kNone, false, "--wait ", "", "read verbs as the gateway's shell does", shell},
    {"version", Operand::kNone, false, "", "", "show the versions of this program and of the gateway",
     version},
};

ConfSave::int64 parse_version(const std::string& text) {
  ConfSave::int64 number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number > 0) return number;
  // The library converts many other texts, too. A version is printed as it was written.
  ConfSave::Config config(0);
  if (config.vers_convert(text) && config.vers > 0 && config.version() == text) return config.vers;
  throw CLI::ValidationError("'" + text + "' is not a version; write it as 4.5.4, or as a packed number");
}

unsigned parse_number(const std::string& text, unsigned least) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number >= least) return number;
  throw CLI::ValidationError("'" + text + "' is not a number from " + std::to_string(least) + " to " +
                             std::to_string(std::numeric_limits<unsigned>::max()));
}

ConfSave::conftype parse_type(const std::string& text) {
  if (text == "full") return ConfSave::conf_full;
  if (text == "part") return ConfSave::conf_part;
  if (text == "corlu") return ConfSave::conf_corlu;
  throw CLI::ValidationError("'" + text + "' is not one of full, part, corlu");
}

std::string parse_sort(const std::string& text) {
  for (const char* key : {"name", "saved", "loaded", "version"}) {
    if (text == key) return text;
  }
  throw CLI::ValidationError("'" + text + "' is not one of name, saved, loaded, version");
}

void set_version(const std::string& text, Options& options) {
  options.no_version = text == "none";
  options.version = options.no_version ? 0 : parse_version(text);
}

struct Option {
  const char* name;
  const char* value;   ///< the name of its value; empty for a flag
  const char* values;  ///< the values that completion offers, each followed by a blank
  const char* effect;
  void (*set)(const std::string& value, Options& options);
};

constexpr Option kOptions[] = {
    {"--type", "TYPE", "full part corlu ", "full, part or corlu; default: full",
     [](const std::string& value, Options& options) { options.type = parse_type(value); }},
    {"--version", "VERSION", "", "the version of the snapshot, as 4.5.4", set_version},
    {"--upto", "VERSION", "", "only snapshots up to this version",
     [](const std::string& value, Options& options) { options.upto = parse_version(value); }},
    {"--sort", "KEY", "name saved loaded version ", "sort by name, saved, loaded or version",
     [](const std::string& value, Options& options) { options.sort = parse_sort(value); }},
    {"--target", "DIR", "", "restore everything into this directory",
     [](const std::string& value, Options& options) { options.target = value; }},
    {"--max", "N", "", "keep at most N autosaves",
     [](const std::string& value, Options& options) { options.max = parse_number(value, 1); }},
    {"--wait", "SECONDS", "", "how long to wait for other programs; default: 30",
     [](const std::string& value, Options& options) { options.wait = parse_number(value, 0); }},
    {"--force", "", "", "neither ask before overwriting nor refuse",
     [](const std::string&, Options& options) { options.force = true; }},
    {"--yes", "", "", "ask no question", [](const std::string&, Options& options) { options.yes = true; }},
    {"--all", "", "", "list the packet filter's own snapshot, too",
     [](const std::string&, Options& options) { options.all = true; }},
    {"--json", "", "", "print JSON", [](const std::string&, Options& options) { options.json = true; }},
    {"--long", "", "", "print a table", [](const std::string&, Options& options) { options.table = true; }},
};

bool lists(const char* list, const std::string& word) {
  return (" " + std::string(list)).find(" " + word + " ") != std::string::npos;
}

Arguments split(const std::string& list) {
  std::istringstream stream(list);
  Arguments words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

const Verb* find_verb(const std::string& name) {
  const auto* verb = std::find_if(std::begin(kVerbs), std::end(kVerbs),
                                  [&](const Verb& candidate) { return candidate.name == name; });
  return verb != std::end(kVerbs) ? verb : nullptr;
}

const Option* find_option(const std::string& name) {
  const auto* option = std::find_if(std::begin(kOptions), std::end(kOptions),
                                    [&](const Option& candidate) { return candidate.name == name; });
  return option != std::end(kOptions) ? option : nullptr;
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
  if (verb.operand != Operand::kNone) {
    const bool pattern = verb.operand == Operand::kPattern;
    parser->add_option("NAME", options.name, pattern ? "a name, or a pattern with * ? [ ]" : "a name")
        ->type_name("")
        ->required();
  }
  for (const Option& option : kOptions) {
    if (lists(verb.options, option.name)) add_option(*parser, verb, option, options);
  }
}

int refuse(const std::string& problem, const std::string& help) {
  std::cerr << "confsave: " << printable(problem) << ". See '" << help << "'.\n";
  return kUsage;
}

/// What the table cannot express: options that exclude each other, values that belong to one verb.
std::string contradiction(const Verb& verb, const Options& options) {
  if (options.json && options.table) return "--json and --long cannot be combined";
  if (options.no_version && verb.run != remove) return "--version none is for delete only";
  return "";
}

/// A verb that ran out of time may have missed rows, or not done all that it was asked to do.
int run_in_time(const Verb& verb, const Options& options) {
  limit_storage_wait(std::chrono::seconds(options.wait));
  const int status = verb.run(options);
  if (verb.run == shell) return status;
  if (storage_wait_expired()) {
    print_storage_wait_expired();
    return kBusy;
  }
  const bool only_reads = verb.run == list || verb.run == check_old;
  if (!storage_is_damaged() || (status != kNotFound && !(only_reads && status == kDone))) return status;
  print_storage_damaged();
  return kNoStorage;
}

int run_verb(const Verb& verb, const Options& options) {
  if (!verb.catches_interrupts) return run_in_time(verb, options);
  const int status = [&] {
    const InterruptCatcher catcher;
    return run_in_time(verb, options);
  }();
  if (interrupted() && status != kDone) {
    std::cout.flush();
    // The caller sees what ended the program.
    static_cast<void>(raise(SIGINT));
  }
  return status;
}

int parse_and_run(const Verb& verb, const Arguments& arguments) {
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
    return refuse(unknown.empty() ? error.what() : "'" + unknown.front() + "' was not expected", help);
  }
  const std::string problem = contradiction(verb, options);
  return problem.empty() ? run_verb(verb, options) : refuse(problem, help);
}

int print_help(std::ostream& out, int status) {
  out << "Keep named snapshots of this gateway's configuration.\n\nconfsave VERB [OPTION...]\n\n";
  for (const Verb& verb : kVerbs) {
    std::string call = std::string("  ") + verb.name;
    if (verb.operand != Operand::kNone) call += " NAME";
    for (const std::string& option : split(verb.required)) {
      call.append(" ").append(option).append(" ").append(find_option(option)->value);
    }
    call.resize(std::max<std::size_t>(call.size() + 2, 22), ' ');
    out << call << verb.effect << '\n';
  }
  out << "\n'confsave VERB --help' lists the options of a verb; 'man confsave' is the manual.\n";
  return status;
}

/// For the completion of a command line in bash.
int print_candidates(const Arguments& arguments) {
  limit_storage_wait(std::chrono::seconds(1));  // A person waits for the completion.
  for (const std::string& candidate : candidates({arguments.begin() + 1, arguments.end()})) {
    std::cout << candidate << '\n';
  }
  return kDone;
}

}  // namespace

int run(const Arguments& arguments) {
  if (arguments.empty()) return print_help(std::cerr, kUsage);
  const std::string& first = arguments.front();
  if (first == "--help" || first == "-h") return print_help(std::cout, kDone);
  if (first == "--version") return version({});
  if (first == "--complete") return print_candidates(arguments);
  if (const Verb* verb = find_verb(first)) return parse_and_run(*verb, arguments);
  return refuse("there is no verb '" + first + "'", "confsave --help");
}

Arguments candidates(const Arguments& words) {
  Arguments result;
  if (words.empty()) {
    for (const Verb& verb : kVerbs) result.emplace_back(verb.name);
    return result;
  }
  const Verb* verb = find_verb(words.front());
  if (verb == nullptr) return result;
  if (const Option* last = find_option(words.back()); last != nullptr && last->value[0] != '\0') {
    return split(last->values);
  }
  if (verb->operand != Operand::kNone) result = stored_names();
  for (const std::string& option : split(verb->options)) result.push_back(option);
  return result;
}

Arguments stored_names() {
  if (has_foreign_config()) return {};
  ConfSave::Storage storage;
  Arguments names;
  for (const ConfSave::Config& config : storage.List(0, "name", true)) {
    if (is_name(config.name) && (names.empty() || names.back() != config.name)) {
      names.push_back(config.name);
    }
  }
  return names;
}

}  // namespace console
