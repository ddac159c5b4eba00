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

/// Opens the directories of a record. Code::needs_attention if one is not the one that it was: another file
/// system may be mounted there, or none. To `sweep_only`, such a directory has nothing to sweep.
Result<std::vector<Site>> open_sites(const std::vector<Root>& roots, bool sweep_only = false);

/// Names those that were left out.
void warn_of_other_directories(const std::vector<Root>& roots, const std::vector<Site>& sites,
                               std::vector<std::string>& warnings);

}  // namespace ConfSave::snapshots
