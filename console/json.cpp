#include "json.h"

#include <ctime>
#include <iostream>

#include "text.h"

namespace console {
namespace {

std::string dump(const Json& value) { return value.dump(2, ' ', true, Json::error_handler_t::replace); }

}  // namespace

Json json_bytes(const std::string& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (std::size_t at = 0; at < bytes.size();) {
    const auto byte = static_cast<unsigned char>(bytes[at]);
    const std::size_t length = utf8_length(bytes, at);
    if (byte == '\\') {
      text += "\\\\";
    } else if (length == 0) {
      text.append("\\x").append(1, kDigits[byte >> 4U]).append(1, kDigits[byte & 0xfU]);
    } else {
      text.append(bytes, at, length);
    }
    at += length == 0 ? 1 : length;
  }
  return text;
}

Json json_text(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

Json json_utc(ConfSave::int64 time) {
  const std::time_t seconds = time;
  std::tm parts = {};
  if (gmtime_r(&seconds, &parts) == nullptr) return nullptr;
  char text[64] = "";
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts));
}

void print_json(const Json& document) { std::cout << dump(document) << '\n'; }

JsonArray::JsonArray(const Json& head, const std::string& key) : indent_("  ") {
  const std::string text = dump(head);
  std::cout << text.substr(0, text.size() - 2) << ",\n  \"" << key << "\": ";
}

void JsonArray::add(const Json& element) {
  std::cout << (empty_ ? "[\n" : ",\n") << indent_ << "  ";
  empty_ = false;
  // No text in the element has a line feed of its own.
  for (const char letter : dump(element)) {
    std::cout << letter;
    if (letter == '\n') std::cout << indent_ << "  ";
  }
}

void JsonArray::end() const {
  std::cout << (empty_ ? "[]" : "\n" + indent_ + "]") << (indent_.empty() ? "\n" : "\n}\n");
}

}  // namespace console
