#pragma once

#include <string>

#include "confsave/snapshots.h"
#include "snapshots/journal.h"

namespace ConfSave::snapshots {

// What a caller may ask for. Each returns Code::bad_argument with the reason.

/// A name that the contract library saves under, and a version that it can print.
Error check_id(const Id& id);

/// One of the three types that the contents are defined for.
Error check_type(conftype type);

/// At most 4,096 bytes of UTF-8 without control characters.
Error check_comment(const std::string& comment);

/// SQLite reads a pattern to its end.
Error check_pattern(const std::string& pattern);

/// The system reads a path to its end.
Error check_path(const std::string& path);

/// No snapshot is named twice.
Error check_ids(const Ids& ids);

/// Functions that can be called.
Error check_sink(const Sink& sink);
Error check_supply(const Supply& supply);

/// A value of the enumeration.
Error check_when(When when);

/// Checks the target and the program.
Error check_paths(const RestoreOptions& options);

/// Checks these, too, and `confirm_within`.
Error check_window(const RestoreOptions& options);

/// Whether another process, in another directory, finds the files.
Error check_absolute(const Record& record);

}  // namespace ConfSave::snapshots
