#pragma once

#include <string>
#include <vector>

namespace console {

/// What the program exits with.
enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2 };

using Arguments = std::vector<std::string>;

/// Runs the verb in `arguments[0]` on the rest.
int run(const Arguments& arguments);

/// The four commands of the gateway's shell, until the input ends or "exit" is typed.
int shell();

/// Tells what is wrong with a name that is not one to 80 valid characters, before it gets into a
/// statement.
bool is_valid_name(const std::string& name);

}  // namespace console
