#pragma once

// Where the platform puts things. Each function asks it anew: its answers may change from call to call.

#include <string>

namespace ConfSave {

/// The failover directory, the same on every gateway.
constexpr const char* kFailoverDirectory = "/mnt/main/etc/";

/// The configuration directory, ending in "/".
std::string config_directory();

/// The state directory, without a "/" at the end.
std::string state_directory();

/// The file of the storage.
std::string storage_file();

/// The directory for temporary files, without a "/" at the end.
std::string temporary_directory();

/// The name below "user/" of the configuration file that the platform knows as number `id`.
std::string user_file(int id);

}  // namespace ConfSave
