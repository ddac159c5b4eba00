#include "verbs.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <iostream>
#include <limits>
#include <sstream>

#include "commands.h"
#include "exit_status.h"
#include "names.h"

namespace console {
namespace {

/// A verb's argument.
enum class Operand { kNone, kName, kPattern };

struct Verb {
  const char* name;
  Operand operand;
  const char* options;  ///< names from kOptions, each followed by a blank
  const char* required;
  const char* effect;
  int (*run)(const Options& options);
};

constexpr Verb kVerbs[] = {
    {"list", Operand::kNone, "--upto --sort --all --json --long ", "", "show what is stored", list},
    {"save", Operand::kName, "--type --version --force --wait ", "", "store the configuration as it is now",
     save},
    {"load", Operand::kPattern, "--version --target --yes --force --wait ", "",
     "restore a stored configuration", load},
    {"delete", Operand::kName, "--version ", "", "delete a stored configuration", remove},
    {"autosave", Operand::kNone, "--max --type --wait ", "--max ",
     "store the configuration under a name made of the time", autosave},
    {"check-old", Operand::kNone, "", "", "tell whether an autosave is older than 31 days", check_old},
    {"shell", Operand::kNone, "--wait ", "", "the commands of the gateway's shell", shell},
    {"version", Operand::kNone, "", "", "show the versions of this program and of the gateway", version},
};

ConfSave::int64 parse_version(const std::string& text) {
  ConfSave::int64 number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number > 0) return number;
  // Much converts that no version is written as: only what reads the same again is one.
  ConfSave::Config config(0);
  if (config.vers_convert(text) && config.vers > 0 && config.version() == text) return config.vers;
  throw CLI::ValidationError("'" + text + "' is no version; write it as 4.5.4, or as a packed number");
}

unsigned parse_number(const std::string& text, unsigned least) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number >= least) return number;
  throw CLI::ValidationError("'" + text + "' is no number from " + std::to_string(least) + " to " +
                             std::to_string(std::numeric_limits<unsigned>::max()));
}

ConfSave::conftype parse_type(const std::string& text) {
  if (text == "full") return ConfSave::conf_full;
  if (text == "part") return ConfSave::conf_part;
  if (text == "corlu") return ConfSave::conf_corlu;
  throw CLI::ValidationError("'" + text + "' is none of full, part, corlu");
}

std::string parse_sort(const std::string& text) {
  for (const char* key : {"name", "saved", "loaded", "version"}) {
    if (text == key) return text;
  }
  throw CLI::ValidationError("'" + text + "' is none of name, saved, loaded, version");
}

void set_version(const std::string& text, Options& options) {
  options.no_version = text == "none";
  options.version = options.no_version ? 0 : parse_version(text);
}

struct Option {
  const char* name;
  const char* value;   ///< what it takes; empty for a flag
  const char* values;  ///< what can be offered, each followed by a blank
  const char* effect;
  void (*set)(const std::string& value, Options& options);
};

constexpr Option kOptions[] = {
    {"--type", "TYPE", "full part corlu ", "what to store: full, part or corlu (full)",
     [](const std::string& value, Options& options) { options.type = parse_type(value); }},
    {"--version", "VERSION", "", "the version of the configuration, as 4.5.4", set_version},
    {"--upto", "VERSION", "", "only up to this version",
     [](const std::string& value, Options& options) { options.upto = parse_version(value); }},
    {"--sort", "KEY", "name saved loaded version ", "in the order of name, saved, loaded or version",
     [](const std::string& value, Options& options) { options.sort = parse_sort(value); }},
    {"--target", "DIR", "", "restore into this directory instead",
     [](const std::string& value, Options& options) { options.target = value; }},
    {"--max", "N", "", "keep at most so many autosaves",
     [](const std::string& value, Options& options) { options.max = parse_number(value, 1); }},
    {"--wait", "SECONDS", "", "how long to wait for another confsave (30)",
     [](const std::string& value, Options& options) { options.wait = parse_number(value, 0); }},
    {"--force", "", "", "go on where the program would ask or refuse",
     [](const std::string&, Options& options) { options.force = true; }},
    {"--yes", "", "", "ask nothing", [](const std::string&, Options& options) { options.yes = true; }},
    {"--all", "", "", "the packet filter's own record as well",
     [](const std::string&, Options& options) { options.all = true; }},
    {"--json", "", "", "as JSON", [](const std::string&, Options& options) { options.json = true; }},
    {"--long", "", "", "as a table", [](const std::string&, Options& options) { options.table = true; }},
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

void add_option(CLI::App& command, const Verb& verb, const Option& option, Options& options) {
  if (option.value[0] == '\0') {
    command.add_flag_callback(
        option.name, [&option, &options] { option.set("", options); }, option.effect);
    return;
  }
  command
      .add_option_function<std::string>(
          option.name, [&option, &options](const std::string& value) { option.set(value, options); },
          option.effect)
      ->type_name(option.value)
      ->required(lists(verb.required, option.name));
}

void add_verb(CLI::App& program, const Verb& verb, Options& options) {
  CLI::App* command = program.add_subcommand(verb.name, verb.effect);
  if (verb.operand != Operand::kNone) {
    const bool pattern = verb.operand == Operand::kPattern;
    command->add_option("NAME", options.name, pattern ? "its name, or a pattern of * ? [ ]" : "its name")
        ->type_name("")
        ->required();
  }
  for (const Option& option : kOptions) {
    if (lists(verb.options, option.name)) add_option(*command, verb, option, options);
  }
}

int refuse(const std::string& problem, const std::string& help) {
  std::cerr << "confsave: " << printable(problem) << ". See '" << help << "'.\n";
  return kUsage;
}

/// What no table can say: options that exclude each other or belong to one verb alone.
std::string contradiction(const Verb& verb, const Options& options) {
  if (options.json && options.table) return "--json and --long exclude each other";
  if (options.no_version && verb.run != remove) return "only delete takes --version none";
  return "";
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
    // A word that is not known says more than the one that is missing.
    const Arguments unknown = program.remaining(true);
    return refuse(unknown.empty() ? error.what() : "'" + unknown.front() + "' was not expected", help);
  }
  const std::string problem = contradiction(verb, options);
  return problem.empty() ? verb.run(options) : refuse(problem, help);
}

int print_help(std::ostream& out, int status) {
  out << "Keeps named snapshots of this gateway's configuration.\n\nconfsave VERB [OPTION...]\n\n";
  for (const Verb& verb : kVerbs) {
    std::string call = std::string("  ") + verb.name;
    if (verb.operand != Operand::kNone) call += " NAME";
    for (const std::string& option : split(verb.required)) {
      call.append(" ").append(option).append(" ").append(find_option(option)->value);
    }
    call.resize(std::max<std::size_t>(call.size() + 2, 22), ' ');
    out << call << verb.effect << '\n';
  }
  out << "\nconfsave VERB --help shows the options of a verb, man confsave everything.\n";
  return status;
}

/// For the shell's completion: what comes after the words that follow.
int print_candidates(const Arguments& arguments) {
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
