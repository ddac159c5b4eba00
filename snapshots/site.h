#pragma once

#include <string>
#include <vector>

#include "snapshots/beneath.h"
#include "snapshots/journal.h"

namespace ConfSave::snapshots {

/// A destination, opened, with its staging directory, if that exists.
struct Site {
  Beneath beneath;
  std::string name;  ///< of the staging directory
  Descriptor staging;
};

/// What has to be there of a record.
enum class Need {
  nothing,       ///< a destination that is another one, or is missing, is left out
  destinations,  ///< those that it was made for
  old_files,     ///< and their staging directories
};

/// Opens the directories of a record. Code::needs_attention if what is needed is not there: another file
/// system may be mounted, or none.
Result<std::vector<Site>> open_sites(const std::vector<Root>& roots, Need need);

/// Makes the file systems of the directories durable: what was staged in `sites`, and the files that equal
/// the snapshot already, which who wrote them may not have synced.
Error sync_destinations(const std::vector<std::string>& directories, const std::vector<Site>& sites = {});

/// Of a file that has another device than its directory: each layer of its overlay has inode numbers of its
/// own, and a recovery could take one file for another.
Error no_lasting_inode(const std::string& path);

/// Names those that were left out.
void warn_of_other_directories(const std::vector<Root>& roots, const std::vector<Site>& sites,
                               std::vector<std::string>& warnings);

}  // namespace ConfSave::snapshots
