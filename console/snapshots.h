#pragma once

// Questions about the storage and its snapshots, asked through the library's public functions.

#include <confsave.h>

#include <ctime>
#include <optional>
#include <string>

namespace console {

/// Returns kDone if the storage can be opened and its table read. Otherwise prints the reason and the next
/// step, and returns the exit status.
int check_storage();

/// The record of exactly this name and version, which may be 0.
std::optional<ConfSave::Config> find_exactly(const std::string& name, ConfSave::int64 version);

/// True if the stored name is what find_exactly() and the library's listings return. A foreign row may have
/// a NUL byte in its name, which ends the name there. Prints what to do about it.
bool has_plain_name(const ConfSave::Config& config);

/// Stored times are 32 bits wide, and wrap.
bool is_since(ConfSave::int64 stored_time, std::time_t since);

bool was_saved(const std::string& name, ConfSave::int64 version, std::time_t since);

bool was_loaded(const std::string& name, ConfSave::int64 version, std::time_t since);

/// Waits until the time differs from `stored_time`, and returns it: a later stamp cannot be mistaken for
/// that one.
std::time_t later_than(ConfSave::int64 stored_time);

/// Unpacks into a directory of its own and undoes the stamp. Prints the reason when that fails.
bool can_be_restored(const ConfSave::Config& config);

}  // namespace console
