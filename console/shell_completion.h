#pragma once

#include "verbs.h"

namespace console {

/// The words that complete `begun`, the last word of `line`, in the shell.
Arguments shell_candidates(const std::string& line, const std::string& begun);

}  // namespace console
