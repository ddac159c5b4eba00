#pragma once

#include "kelmor/status.h"

extern "C" {

/// Runs one shell command line, formed as printf forms it, and waits for it to end.
/// Returns 0 for success, else the command's exit code. A host may define its own.
KELMOR_API int my_system(const char* format, ...);
}
