#pragma once

#include <confsave.h>

#include <nlohmann/json.hpp>
#include <string>

namespace console {

/// Keys stay in the order in which they are set.
using Json = nlohmann::ordered_json;

/// A name or a path, which is made of any bytes. A byte that is not part of a UTF-8 character becomes
/// "\xNN", and a backslash "\\", so that nothing is lost.
Json json_bytes(const std::string& bytes);

/// The text, or null when it is empty.
Json json_text(const std::string& text);

/// The time in UTC, or null for one that no calendar has.
Json json_utc(ConfSave::int64 time);

/// An array of names or paths.
template <class Texts>
Json json_all(const Texts& texts) {
  Json array = Json::array();
  for (const std::string& text : texts) array.push_back(json_bytes(text));
  return array;
}

void print_json(const Json& document);

/// Prints an array element by element: a document of all would take twenty times the memory.
class JsonArray {
 public:
  /// The array is the document.
  JsonArray() = default;
  /// The array is the last member of `head`.
  JsonArray(const Json& head, const std::string& key);

  void add(const Json& element);

  void end() const;

 private:
  std::string indent_;
  bool empty_ = true;
};

}  // namespace console
