#pragma once

#include "verbs.h"

namespace console {

/// What can be typed in the shell for the word that begins with `begun` at the end of `line`.
Arguments shell_candidates(const std::string& line, const std::string& begun);

}  // namespace console
