#pragma once

#include <chrono>

namespace console {

/// Limits how long SQLite waits in all for locks of the storage, from now on. When the time is over, or
/// after an interrupt, a lock that is not free fails: the library itself waits 24.8 days.
void limit_storage_wait(std::chrono::milliseconds limit);

/// Whether the limit was reached.
bool storage_wait_expired();

/// What a person can do then. Prints it once.
void print_storage_wait_expired();

/// Whether SQLite met a damaged page, or one that the disk does not return, since the limit was set.
/// Snapshots may then be missing in a listing.
bool storage_is_damaged();

/// What a person can do then. Prints it once.
void print_storage_damaged();

}  // namespace console
