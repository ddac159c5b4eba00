#pragma once

#include <string>
#include <vector>

#include "snapshots/tree.h"

namespace ConfSave::snapshots {

/// What SQLite keeps beside the configuration database while it is in use, relative to the directory of the
/// configuration: rollback journals, write-ahead logs and their indexes. Whatever database is there is
/// changed by them when it is opened next.
std::vector<std::string> database_logs();

/// Whether this is a file of the configuration database itself. `path` is relative.
bool is_database_file(const std::string& path);

/// The name in a staging directory of a log that is set aside when the database goes to the slot `slot`.
std::string log_slot(const std::string& slot, const std::string& log);

/// Whether `log` has changes that the database does not have yet, and no snapshot holds.
bool holds_changes(const Member& log);

/// What the logs of the live configuration mean for a snapshot that is made now: a sentence each.
std::vector<std::string> warnings_of_logs();

}  // namespace ConfSave::snapshots
