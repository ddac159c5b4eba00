#pragma once

// Warnings, and what a person can do about a failure. Everything goes to standard error.

#include <confsave.h>

#include <string>

namespace console {

/// Why nothing can be written to `directory`, with its path: permission, a read-only or a full file system.
/// Empty when it can be written to.
std::string obstacle(const std::string& directory);

/// Where the platform's stand-in writes the log.
std::string log_file();

/// After a failure: which command failed and why, and what to do next.
void print_next_step();

/// Nothing is stored under this name or pattern, unless the storage was not read to its end.
void print_not_found(const std::string& name);

/// After a restore that failed midway.
void print_partial_restore();

/// After a restore whose stamp did not reach the storage.
void print_missing_stamp(const std::string& name);

/// Warns when there is no failover file to pack, without which a full or partial snapshot cannot be
/// restored.
void warn_without_failover_files(ConfSave::conftype type);

}  // namespace console
