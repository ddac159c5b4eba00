#include "names.h"

#include <confsave.h>

#include <algorithm>
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

bool is_autosave(const std::string& name) {
  const std::string form = "autosave-0000-00-00-00-00-00";
  std::string digits = name;
  const auto is_digit = [](char letter) { return letter >= '0' && letter <= '9'; };
  std::replace_if(digits.begin(), digits.end(), is_digit, '0');
  if (digits.compare(0, form.size(), form) != 0) return false;
  const std::string rest = digits.substr(form.size());
  return rest.empty() ||
         (rest.size() > 1 && rest[0] == '-' && rest.find_first_not_of('0', 1) == std::string::npos);
}

bool check_name(const std::string& name) {
  return check_characters("name", name, ConfSave::VALID_NAME_CHARS);
}

bool check_pattern(const std::string& pattern) {
  return check_characters("name or pattern", pattern, ConfSave::VALID_NAME_CHARS + "*?[]");
}

}  // namespace console
