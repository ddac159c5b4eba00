#pragma once

#include <string>

namespace console {

/// Asks at the terminal until the answer is yes or no, of which the first letter is enough. No answer and
/// an interrupt count as no.
bool ask(const std::string& question);

}  // namespace console
