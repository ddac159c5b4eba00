#pragma once

#include "kelmor/status.h"

extern "C" {

/// Runs one shell command line, formatted as by printf(), and waits for it. Returns 0 for success, and the
/// exit status of the command otherwise. A host may define this function itself.
KELMOR_API int my_system(const char* format, ...);
}
