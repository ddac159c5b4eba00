#pragma once

// The one table of what the program can be asked for. The command line, the help and the completion are
// made of it.

#include <string>
#include <vector>

namespace console {

using Arguments = std::vector<std::string>;

/// Runs what `arguments` ask for, and returns what the program exits with.
int run(const Arguments& arguments);

/// What can come next after `words`, which begin with a verb or are empty: verbs, options, values of
/// options, names of stored configurations.
Arguments candidates(const Arguments& words);

/// The names of stored configurations that may be typed, each once.
Arguments stored_names();

}  // namespace console
