#pragma once

#include <string>

namespace console {

/// `none`: the input ended, or an interrupt came.
enum class Answer { no, yes, none };

/// Asks at the terminal until the answer is yes or no, of which the first letter is enough.
Answer ask(const std::string& question);

}  // namespace console
