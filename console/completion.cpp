#include "completion.h"

#include <confsave/snapshots.h>

#include <CLI/CLI.hpp>

#include "names.h"
#include "values.h"
#include "verb_table.h"

namespace console {
namespace {

namespace cs = ConfSave::snapshots;

constexpr const char* kPathChars =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_./+,=@:";

/// The names of stored snapshots, each once.
Arguments stored_names() {
  cs::Query query;
  query.order = cs::Query::Order::name;
  const auto snapshots = cs::list(query);
  Arguments names;
  if (!snapshots) return names;
  for (const cs::Snapshot& snapshot : *snapshots) {
    const std::string& name = snapshot.config.name;
    if (is_name(name) && (names.empty() || names.back() != name)) names.push_back(name);
  }
  return names;
}

bool takes_value(const std::string& word) {
  const Option* option = find_option(word);
  return option != nullptr && option->value[0] != '\0';
}

/// The first word that is neither the verb nor part of an option.
std::string first_operand(const Arguments& words) {
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (takes_value(words[i])) {
      ++i;
    } else if (words[i].substr(0, 1) != "-") {
      return words[i];
    }
  }
  return "";
}

/// The files of the snapshot that the words name.
Arguments paths(const Arguments& words) try {
  const Selection selection = parse_selection(first_operand(words));
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

Arguments candidates(const Arguments& words) {
  Arguments result;
  if (words.empty()) {
    for (const Verb& verb : verbs()) result.emplace_back(verb.name);
    return result;
  }
  const Verb* verb = find_verb(words.front());
  if (verb == nullptr) return result;
  if (words.back() == "--file") return paths(words);
  if (takes_value(words.back())) return split(find_option(words.back())->values);
  if (verb->first != nullptr && verb->first->is_snapshot) result = stored_names();
  for (const std::string& option : split(verb->options)) result.push_back(option);
  return result;
}

}  // namespace console
