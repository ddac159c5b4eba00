#pragma once

#include <string>

#include "snapshots/journal.h"

namespace ConfSave::snapshots {

/// The milliseconds since the boot of the machine, time asleep included. Nobody sets this clock.
int64 since_boot();

/// What names this boot of the machine, and no other.
Result<std::string> boot_identity();

/// A window that closes after this time.
Result<Window> open_window(std::chrono::seconds length);

/// The milliseconds that are left: 0 after a restart, too. The error is that of boot_identity().
Result<int64> left_of(const Window& window);

/// Rounded up: what is due has 0 seconds left.
inline int64 in_seconds(int64 milliseconds) { return (milliseconds + 999) / 1000; }

/// When the window closes, by the clock as it is set now.
int64 end_of(const Window& window);

/// Whether the machine was restarted since the window was opened.
bool is_of_another_boot(const Window& window);

}  // namespace ConfSave::snapshots
