#pragma once

#include <string>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// Makes an empty file of the state directory, mode 0600 under any umask, unless it exists: SQLite gives
/// its files the mode of the umask. One that is there is not opened: closing it would release the locks
/// that SQLite has on it elsewhere in this process.
Error make_unless_there(const std::string& file);

/// The same for a file that holds nothing but our own: one that is there gets that mode, too.
Error make_own_file(const std::string& file);

/// Opens a file of the state directory, and makes it unless it exists. -1 with errno.
int open_or_make(const std::string& file, int flags);

/// Whether it is one of the state directory's own files, or has the name of one that is not there: an
/// export would be taken for the journal.
bool is_own_file(const std::string& file);

}  // namespace ConfSave::snapshots
