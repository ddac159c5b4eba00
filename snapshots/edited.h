#pragma once

#include <string>
#include <vector>

#include "snapshots/deadline.h"
#include "snapshots/site.h"

namespace ConfSave::snapshots {

/// Saves the configuration under a name that begins with "reverted-" if files that the restore of `record`
/// has put there are others by now. Those that the snapshot holds count as put there from then on, in the
/// journal too. The name of the snapshot, or nothing. What fails is a warning: the undo sets such files
/// aside. The caller holds "confsave.lock", and has no transaction on the storage.
std::string keep_edited(Journal& journal, Record& record, std::vector<Site>& sites,
                        const Deadline& deadline, std::vector<std::string>& warnings);

}  // namespace ConfSave::snapshots
