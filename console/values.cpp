#include "values.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <confsave/snapshots.h>
#include <limits>

#include "text.h"

namespace console {

ConfSave::int64 parse_version(const std::string& text) {
  if (text == "none") return 0;
  ConfSave::int64 number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number > 0) return number;
  // The library converts many other texts, too. A version is printed as it was written.
  ConfSave::Config config(0);
  if (config.vers_convert(text) && config.vers > 0 && config.version() == text) return config.vers;
  throw CLI::ValidationError("'" + text + "' is not a version; write 4.5.4, a packed number, or none");
}

std::string version_text(ConfSave::int64 version) {
  if (version == 0) return "none";
  const std::string text = ConfSave::Config::version(version);
  ConfSave::Config config(0);
  return config.vers_convert(text) && config.vers == version ? text : std::to_string(version);
}

Selection parse_selection(const std::string& text) {
  const std::size_t at = text.rfind('@');
  if (at == std::string::npos) return {text, std::nullopt};
  return {text.substr(0, at), parse_version(text.substr(at + 1))};
}

Selection parse_one(const std::string& text) {
  Selection selection = parse_selection(text);
  if (selection.name.empty()) throw CLI::ValidationError("the name is empty");
  return selection;
}

unsigned parse_number(const std::string& text, unsigned least) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number >= least) return number;
  throw CLI::ValidationError("'" + text + "' is not a number from " + std::to_string(least) + " to " +
                             std::to_string(std::numeric_limits<unsigned>::max()));
}

unsigned parse_time(const std::string& text) {
  namespace cs = ConfSave::snapshots;
  constexpr ConfSave::int64 kMinute = 60;
  constexpr ConfSave::int64 kHour = 3600;
  ConfSave::int64 number = 0;
  const char* const last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), last, number);
  const bool has_unit = error == std::errc() && end + 1 == last && number > 0 && number <= 24 * kHour;
  ConfSave::int64 seconds = 0;
  if (has_unit && *end == 's') seconds = number;
  if (has_unit && *end == 'm') seconds = number * kMinute;
  if (has_unit && *end == 'h') seconds = number * kHour;
  if (seconds >= cs::kShortestWindow.count() && seconds <= cs::kLongestWindow.count()) {
    return static_cast<unsigned>(seconds);
  }
  throw CLI::ValidationError("'" + text + "' is not a time from 10s to 24h; write 90s, 10m or 2h");
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

std::string parse_directory(const std::string& text) {
  if (!text.empty()) return text;
  throw CLI::ValidationError("the directory is empty");
}

std::string parse_command(const std::string& text) {
  if (text.find_first_not_of(" \t\n") != std::string::npos) return text;
  throw CLI::ValidationError("the command is empty");
}

std::string parse_member(const std::string& text) {
  if (!text.empty() && text.front() == '/') return text;
  throw CLI::ValidationError("'" + text +
                             "' is not an absolute path; 'confsave show NAME' prints the paths");
}

}  // namespace console
