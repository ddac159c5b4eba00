#pragma once

#include <string>

#include "snapshots/journal.h"

namespace ConfSave::snapshots {

/// Starts the process that takes a pending restore back when its time is up, in a session of its own and
/// under systemd in a scope of its own. It has no terminal, no lock and no file of this one, but its
/// environment, and has to write a byte to the file descriptor 3 when it waits. `program` is called with
/// the arguments "revert --when-due"; empty: the installed one.
Error start_waiter(const std::string& program, const Window& window);

/// Called by that program when it waits: says so to who has started it. Does nothing in any other one.
void say_ready();

}  // namespace ConfSave::snapshots
