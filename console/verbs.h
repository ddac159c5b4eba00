#pragma once

#include "words.h"

namespace console {

/// Runs the verb that `arguments` begin with, and flushes standard output. Returns the exit status.
int run(const Arguments& arguments);

}  // namespace console
