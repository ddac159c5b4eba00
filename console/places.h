#pragma once

// The directories and files that the program names in messages and checks.

#include <string>

namespace console {

constexpr const char* kFailoverDirectory = "/mnt/main/etc/";

/// Ends in "/".
std::string configuration_directory();

std::string state_directory();

std::string temporary_directory();

std::string storage_file();

/// Where the platform's stand-in writes the log.
std::string log_file();

}  // namespace console
