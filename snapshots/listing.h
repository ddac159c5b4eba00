#pragma once

#include <optional>

#include "snapshots/deadline.h"
#include "snapshots/notes.h"

namespace ConfSave::snapshots {

/// What list() does. `notes` gets the notes that it has opened; no value without any that can be read.
Result<Snapshots> list_rows(const Query& query, const Deadline& deadline, std::optional<Notes>& notes);

}  // namespace ConfSave::snapshots
