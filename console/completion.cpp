#include "completion.h"

#include <confsave/snapshots.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>

#include "names.h"
#include "values.h"
#include "verb_table.h"

namespace console {
namespace {

namespace cs = ConfSave::snapshots;

constexpr const char* kPathChars =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_./+,=@:";

/// The rows that match, in the order of names.
cs::Snapshots stored(const std::string& pattern) {
  cs::Query query;
  query.pattern = pattern;
  query.order = cs::Query::Order::name;
  auto snapshots = cs::list(query);
  return snapshots ? std::move(*snapshots) : cs::Snapshots();
}

void add_once(Arguments& words, const std::string& word) {
  if (std::find(words.begin(), words.end(), word) == words.end()) words.push_back(word);
}

/// The names of stored snapshots, each once, and NAME@VERSION where a name has several versions.
Arguments stored_names() {
  const cs::Snapshots snapshots = stored("*");
  Arguments names;
  for (auto at = snapshots.begin(); at != snapshots.end(); ++at) {
    const std::string& name = at->config.name;
    if (!is_name(name)) continue;
    const auto is_another = [&](const cs::Snapshot& other) {
      return &other != &*at && other.config.name == name;
    };
    add_once(names, name);
    if (std::any_of(snapshots.begin(), snapshots.end(), is_another)) {
      add_once(names, name + "@" + version_text(at->config.vers));
    }
  }
  return names;
}

bool takes_value(const std::string& word) {
  const Option* option = find_option(word);
  return option != nullptr && option->value[0] != '\0';
}

/// What the words behind the verb are.
struct Parts {
  Arguments operands;
  std::string open;  ///< the option whose value comes next
  bool has_all = false;
  bool is_behind_dashes = false;  ///< what comes next is no option
};

Parts parts_of(const Arguments& words) {
  Parts parts;
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (parts.is_behind_dashes || word.substr(0, 1) != "-") {
      parts.operands.push_back(word);
    } else if (word == "--") {
      parts.is_behind_dashes = true;
    } else if (takes_value(word)) {
      if (++i == words.size()) parts.open = word;
    } else if (word == "--all") {
      parts.has_all = true;
    }
  }
  return parts;
}

/// With --all, the first operand is left out.
const Operand* next_operand(const Verb& verb, const Parts& parts) {
  const std::size_t count = parts.operands.size() + (parts.has_all ? 1 : 0);
  return count == 0 ? verb.first : count == 1 ? verb.second : nullptr;
}

/// The versions of the snapshots that the words name; of all, if they name none.
Arguments versions(const Arguments& words) {
  const Arguments named = parts_of(words).operands;
  Arguments result;
  for (const cs::Snapshot& snapshot : stored(named.empty() ? "*" : named.front())) {
    add_once(result, version_text(snapshot.config.vers));
  }
  add_once(result, "none");
  return result;
}

/// The files of the snapshot that the words name.
Arguments paths(const Arguments& words) try {
  const Arguments named = parts_of(words).operands;
  if (named.empty()) return {};
  const Selection selection = parse_selection(named.front());
  cs::Query query;
  query.pattern = selection.name;
  query.version = selection.version;
  const auto snapshot = cs::find(query);
  if (!snapshot) return {};
  const auto members = cs::members({snapshot->config.name, snapshot->config.vers});
  if (!members) return {};
  Arguments result;
  for (const cs::Member& member : *members) {
    const bool has_content = member.kind == cs::Kind::file || member.kind == cs::Kind::hardlink;
    const bool is_plain = member.path.find_first_not_of(kPathChars) == std::string::npos;
    if (has_content && is_plain) result.push_back(member.path);
  }
  return result;
} catch (const CLI::ValidationError&) {
  return {};
}

}  // namespace

bool asks_for_verb(const Arguments& words) {
  return words.empty() || (words.size() == 1 && words.front() == "help");
}

bool asks_for_file(const Arguments& words) {
  const Verb* verb = words.empty() ? nullptr : find_verb(words.front());
  if (verb == nullptr) return false;
  const Parts parts = parts_of(words);
  const Operand* next = parts.open.empty() ? next_operand(*verb, parts) : nullptr;
  return next != nullptr && std::string(next->name) == "FILE";
}

Arguments candidates(const Arguments& words) {
  Arguments result;
  if (asks_for_verb(words)) {
    for (const Verb& verb : verbs()) result.emplace_back(verb.name);
    return result;
  }
  const Verb* verb = find_verb(words.front());
  if (verb == nullptr) return result;
  const Parts parts = parts_of(words);
  if (parts.open == "--file") return paths(words);
  if (parts.open == "--version" || parts.open == "--upto") return versions(words);
  if (!parts.open.empty()) return split(find_option(parts.open)->values);
  const Operand* next = next_operand(*verb, parts);
  if (next != nullptr && next->is_snapshot) result = stored_names();
  if (parts.is_behind_dashes) return result;
  for (const std::string& option : split(verb->options)) {
    if (std::find(words.begin(), words.end(), option) == words.end()) result.push_back(option);
  }
  return result;
}

}  // namespace console
