#pragma once

// Comparisons and plans as a person reads them.

#include <string>
#include <vector>

#include "report.h"

namespace console {

/// Five columns, a blank, and the path.
std::string line_of(const cs::Difference& difference);

/// One line for each change; at most `most` lines, the last of which then counts the others.
void print_plan(std::ostream& out, const cs::Plan& plan, std::size_t most);

/// Which files stay although the snapshot does not have them.
std::string text_of_extra(const std::vector<std::string>& extra);

/// So many lines of a plan leave room for the questions.
std::size_t lines_of_screen();

}  // namespace console
