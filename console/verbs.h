#pragma once

// The table of verbs. The command line, the help and the completion are made from it.

#include <string>
#include <vector>

namespace console {

using Arguments = std::vector<std::string>;

/// Runs the verb that `arguments` begin with. Returns the exit status.
int run(const Arguments& arguments);

/// What can follow `words`, which begin with a verb or are empty: verbs, options, values of options, names
/// of stored snapshots.
Arguments candidates(const Arguments& words);

/// The names of stored snapshots that can be typed, each once.
Arguments stored_names();

}  // namespace console
