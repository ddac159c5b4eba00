#include "prompt.h"

#include <iostream>
#include <locale>

#include "confsave.h"
#include "throw.h"

namespace ConfSave {
namespace {

constexpr const char* kPhrase = "Yes, do as I say";

/// Under the host's locale, character by character.
void to_upper(std::string& text) {
  const std::locale locale;
  const auto& letters = std::use_facet<std::ctype<char>>(locale);
  for (char& letter : text) letter = letters.toupper(letter);
}

}  // namespace

// The end of input reads as an empty line, every time. // Quirk Q42
std::string read_line() {
  std::string line;
  std::cout.flush();
  std::getline(std::cin, line);
  return line;
}

std::string ask_name_for_current() {
  std::cout << "Name for the current configuration: ";
  return read_line();
}

void demand_phrase() {
  std::cout << "You are about to overwrite your existing configuration.\n"
            << "This is unsafe. To continue, type \n"
            << ">>> " << kPhrase << "\n"
            << "in response to the prompt:\n"
            << ">>> ";
  if (read_line() != kPhrase) throw_status<XCancel>();
}

bool ask_user_yesno(const std::string& prompt, bool repeat) {
  for (;;) {
    std::cout << prompt;
    std::string answer = read_line();
    to_upper(answer);
    if (answer == "N" || answer == "NO") return false;
    if (answer == "Y" || answer == "YES") return true;
    if (!repeat) throw_status<XCancel>();
  }
}

}  // namespace ConfSave
