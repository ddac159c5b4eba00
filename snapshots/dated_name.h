#pragma once

#include <ctime>
#include <string>

namespace ConfSave::snapshots {

/// What the names of autosaves begin with.
constexpr const char* kAutosavePrefix = "autosave-";

/// `prefix` followed by "YYYY-MM-DD-HH-MM-SS" in local time.
std::string dated_name(const std::string& prefix, std::time_t time);

/// "YYYY-MM-DD HH:MM:SS" in local time, for people.
std::string local_time(std::time_t time);

/// Whether `name` has that form, with or without "-N" behind it.
bool is_dated_name(const std::string& prefix, const std::string& name);

}  // namespace ConfSave::snapshots
