#include <algorithm>
#include <array>
#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>

#include "exit_status.h"
#include "snapshots.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

using ConfSave::Config;
using ConfSave::Configs;

/// The column to sort by.
std::string order_of(const std::string& sort) {
  if (sort == "saved") return "save_time";
  if (sort == "loaded") return "load_time";
  return sort;  // "name", "version", or nothing
}

template <class Value>
std::string text_of(const Value& value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

/// A foreign row may have a name with control characters, which a terminal would obey.
void print_lines(const Configs& configs) {
  for (Config config : configs) {
    config.name = printable(config.name);
    std::cout << config << '\n';
  }
}

nlohmann::ordered_json json_text(const std::string& text) {
  if (text.empty()) return nullptr;
  return text;
}

std::string iso_utc(std::time_t time) {
  std::tm parts = {};
  if (gmtime_r(&time, &parts) == nullptr) return "";
  char text[64] = "";
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

nlohmann::ordered_json json_of(const Config& config) {
  const bool loaded = config.load_time != 0;
  nlohmann::ordered_json object;
  object["name"] = config.name;
  object["type"] = json_text(text_of(config.type));
  object["version"] = config.vers;
  object["version_text"] = json_text(config.version());
  object["saved"] = config.save_time;
  object["saved_utc"] = iso_utc(config.save_time);
  object["loaded"] = loaded ? nlohmann::ordered_json(config.load_time) : nullptr;
  object["loaded_utc"] = loaded ? nlohmann::ordered_json(iso_utc(config.load_time)) : nullptr;
  return object;
}

/// One object after the other: a document of all would take twenty times the memory of the records.
void print_json(const Configs& configs) {
  using Handler = nlohmann::ordered_json::error_handler_t;
  const char* separator = "[\n  ";
  for (const Config& config : configs) {
    std::cout << separator;
    // No text in the object has a line feed of its own.
    for (const char letter : json_of(config).dump(2, ' ', true, Handler::replace)) {
      std::cout << letter;
      if (letter == '\n') std::cout << "  ";
    }
    separator = ",\n  ";
  }
  std::cout << (configs.empty() ? "[]\n" : "\n]\n");
}

using Row = std::array<std::string, 5>;

std::string or_dash(const std::string& text) { return text.empty() ? "-" : text; }

Row row_of(const Config& config) {
  return {printable(config.name), or_dash(config.version()), or_dash(text_of(config.type)),
          or_dash(ConfSave::time_format(config.save_time)),
          config.load_time != 0 ? or_dash(ConfSave::time_format(config.load_time)) : "never"};
}

void print_table(const Configs& configs) {
  const Row head{"NAME", "VERSION", "TYPE", "SAVED", "LOADED"};
  std::array<std::size_t, head.size()> widths{};
  const auto widen = [&widths](const Row& row) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  };
  const auto print = [&widths](const Row& row) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      std::cout << row[i] << std::string(widths[i] - row[i].size() + 2, ' ');
    }
    std::cout << row.back() << '\n';
  };
  widen(head);
  for (const Config& config : configs) widen(row_of(config));
  print(head);
  for (const Config& config : configs) print(row_of(config));
}

}  // namespace

int list(const Options& options) {
  if (const int status = check_storage(); status != kDone) return status;
  ConfSave::Storage storage;
  const Configs configs = storage.List(options.upto, order_of(options.sort), !options.all);
  if (options.json) {
    print_json(configs);
  } else if (options.table) {
    print_table(configs);
  } else {
    print_lines(configs);
  }
  return kDone;
}

}  // namespace console
