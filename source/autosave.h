#pragma once

#include <ctime>
#include <string>

#include "confsave.h"

namespace ConfSave {

/// The name of an autosave at `now`, seconds since the epoch, in local time.
std::string autosave_name(std::time_t now);

/// True for an autosave that was saved more than 31 days before `now`, seconds since the epoch.
bool is_old_autosave(const Config& config, int64 now);

}  // namespace ConfSave
