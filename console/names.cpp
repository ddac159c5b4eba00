#include "names.h"

#include <confsave.h>

#include <iostream>

#include "text.h"

namespace console {
namespace {

constexpr std::size_t kLongestName = 80;

bool check_characters(const char* what, const std::string& text, const std::string& valid) {
  if (text.empty()) {
    std::cerr << "confsave: the " << what << " is empty; give 1 to 80 characters.\n";
    return false;
  }
  if (text.size() > kLongestName) {
    std::cerr << "confsave: the " << what << " has " << text.size() << " characters; give 80 at most.\n";
    return false;
  }
  const std::size_t bad = text.find_first_not_of(valid);
  if (bad == std::string::npos) return true;
  std::cerr << "confsave: the " << what << " has the character '" << printable(text.substr(bad, 1))
            << "'; use letters, digits, '-' and '_'"
            << (valid.size() > ConfSave::VALID_NAME_CHARS.size() ? ", and * ? [ ] to match any.\n" : ".\n");
  return false;
}

}  // namespace

bool is_name(const std::string& text) {
  return !text.empty() && text.size() <= kLongestName &&
         text.find_first_not_of(ConfSave::VALID_NAME_CHARS) == std::string::npos;
}

bool check_name(const std::string& name) {
  return check_characters("name", name, ConfSave::VALID_NAME_CHARS);
}

bool check_pattern(const std::string& pattern) {
  return check_characters("name or pattern", pattern, ConfSave::VALID_NAME_CHARS + "*?[]");
}

}  // namespace console
