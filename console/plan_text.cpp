#include "plan_text.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "text.h"

namespace console {

std::string line_of(const cs::Difference& difference) {
  const auto letter = [](bool differs, char shown) { return differs ? shown : '.'; };
  const std::string path = " " + readable(difference.path);
  switch (difference.change) {
    case cs::Change::added:
      return "+...." + path;
    case cs::Change::removed:
      return "-...." + path;
    case cs::Change::modified:
      break;
  }
  const std::string columns = {letter(difference.content, 'c'), letter(difference.mode, 'p'),
                               letter(difference.owner, 'u'), letter(difference.group, 'g'),
                               letter(difference.time, 't')};
  return columns + path;
}

void print_plan(std::ostream& out, const cs::Plan& plan, std::size_t most) {
  const std::size_t count = plan.changes.size();
  const std::size_t shown = count <= most ? count : most - 1;
  for (std::size_t i = 0; i < shown; ++i) out << line_of(plan.changes[i].difference) << '\n';
  if (shown < count) out << "and " << count - shown << " more; --dry-run prints all\n";
}

std::string text_of_extra(const std::vector<std::string>& extra) {
  constexpr std::size_t kMost = 10;
  const bool one = extra.size() == 1;
  std::string text = std::to_string(extra.size());
  text.append(one ? " file that the snapshot does not have stays:"
                  : " files that the snapshot does not have stay:");
  const std::size_t shown = std::min(extra.size(), kMost);
  for (std::size_t i = 0; i < shown; ++i) text.append(i == 0 ? " " : ", ").append(readable(extra[i]));
  if (shown < extra.size())
    text.append(" and ").append(std::to_string(extra.size() - shown)).append(" more");
  return text.append("; --exact removes ").append(one ? "it" : "them");
}

std::size_t lines_of_screen() {
  constexpr std::size_t kQuestions = 8;
  constexpr std::size_t kLeast = 4;
  winsize size = {};
  const bool known = ioctl(STDIN_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
  const std::size_t rows = known ? size.ws_row : 24;
  return std::max(rows, kQuestions + kLeast) - kQuestions;
}

}  // namespace console
