#include "question.h"

#include <confsave.h>

#include <algorithm>
#include <cctype>
#include <iostream>

#include "interrupt.h"

namespace console {

Answer ask(const std::string& question) {
  for (;;) {
    std::cout.flush();
    std::cerr << question << ConfSave::YES_NO_SUFFIX << std::flush;
    std::string answer;
    wait_for_input();
    if (interrupted() || !std::getline(std::cin, answer) || interrupted()) {
      std::cerr << '\n';
      return Answer::none;
    }
    const auto lower = [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); };
    std::transform(answer.begin(), answer.end(), answer.begin(), lower);
    if (answer == "yes" || answer == "y") return Answer::yes;
    if (answer == "no" || answer == "n") return Answer::no;
  }
}

}  // namespace console
