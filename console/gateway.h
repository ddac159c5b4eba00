#pragma once

// Questions about this gateway and its storage, asked through the library's public functions alone.

#include <confsave.h>

#include <ctime>
#include <optional>
#include <string>

namespace console {

/// True if the storage can be opened and its table read. Tells the reason and the remedy otherwise.
bool check_storage();

/// The record of exactly this name and version, 0 being one too.
std::optional<ConfSave::Config> find_exactly(const std::string& name, ConfSave::int64 version);

/// Times come back from the storage as 32 bits, wrapped.
bool is_since(ConfSave::int64 stored_time, std::time_t since);

bool was_saved(const std::string& name, ConfSave::int64 version, std::time_t since);

bool was_loaded(const std::string& name, ConfSave::int64 version, std::time_t since);

/// The time, after it has moved on from `stored_time`: whatever is stamped from now on can be told apart.
std::time_t later_than(ConfSave::int64 stored_time);

/// Tells when there is no failover file to pack, without which a full or partial snapshot cannot be
/// restored.
void warn_without_failover_files(ConfSave::conftype type);

/// Unpacks into a scratch directory and takes back the stamp. Tells why when that fails.
bool can_be_restored(const ConfSave::Config& config);

/// After a failure: what to look at next.
void tell_what_to_look_at();

}  // namespace console
