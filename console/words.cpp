#include "words.h"

#include <sstream>

namespace console {

Arguments split(const std::string& list) {
  std::istringstream stream(list);
  Arguments words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

std::optional<Arguments> words_of(const std::string& line) {
  Arguments words;
  bool in_word = false;
  char quote = '\0';
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char letter = line[at];
    const bool is_blank = letter == ' ' || letter == '\t';
    if (quote == '\0' && is_blank) {
      in_word = false;
      continue;
    }
    if (!in_word) words.emplace_back();
    in_word = true;
    if (letter == quote) {
      quote = '\0';
    } else if (quote == '\0' && (letter == '\'' || letter == '"')) {
      quote = letter;
    } else if (letter == '\\' && quote != '\'' && at + 1 < line.size()) {
      words.back() += line[++at];
    } else {
      words.back() += letter;
    }
  }
  if (quote != '\0') return std::nullopt;
  return words;
}

}  // namespace console
