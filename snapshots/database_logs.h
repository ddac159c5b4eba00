#pragma once

#include <set>
#include <string>
#include <vector>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// What SQLite keeps beside a database while it is in use: the rollback journal, the write-ahead log and
/// its index. Whatever database is there is changed by them when it is opened next. Only for a file of the
/// configuration database; none for other paths. All are relative to the directory of the configuration.
std::vector<std::string> logs_of(const std::string& path);

/// Those of all files of the configuration database.
std::vector<std::string> database_logs();

/// The paths of what the host may have locks on: the files of the configuration database, and their logs.
std::set<std::string> locked_paths();

/// The name in a staging directory of a log that is set aside when the database goes to the slot `slot`.
std::string log_slot(const std::string& slot, const std::string& log);

/// Whether nothing is lost with `log`, which is called `name` in `directory`: SQLite would not read it, or
/// would make it anew. False of what is no log.
bool is_spent(int directory, const std::string& name, const std::string& log);

/// What would be lost with `log`, which is not spent, and what to do about it: for an error.
const char* loss_with(const std::string& log);

/// What the logs of the live configuration mean for a snapshot that is made now: a sentence each.
std::vector<std::string> warnings_of_logs();

/// Whether one of these warnings of a save says that the snapshot may hold a part of a transaction.
bool is_torn(const Saved& saved);

}  // namespace ConfSave::snapshots
