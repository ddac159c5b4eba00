#include "confsave.h"

#include <iostream>
#include <locale>

namespace ConfSave {
namespace {

/// As the host's locale has it, character by character.
void to_upper(std::string& text) {
  const std::locale locale;
  const auto& letters = std::use_facet<std::ctype<char>>(locale);
  letters.toupper(text.data(), text.data() + text.size());
}

}  // namespace

bool ask_user_yesno(const std::string& prompt, bool repeat) {
  for (;;) {
    // Flushed here: a host may have untied the input from the output.
    std::cout << prompt << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    to_upper(answer);
    if (answer == "N" || answer == "NO") return false;
    if (answer == "Y" || answer == "YES") return true;
    if (!repeat) throw XCancel(0, true);
  }
}

}  // namespace ConfSave
