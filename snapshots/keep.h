#pragma once

#include <optional>
#include <string>
#include <vector>

#include "confsave/snapshots.h"
#include "snapshots/deadline.h"

namespace ConfSave::snapshots {

struct DetailedPlan;

// The snapshots of the configuration before a restore. The caller holds "confsave.lock", and has no
// transaction of its own on the storage. What goes wrong without being a failure goes into `warnings`.

struct Kept {
  std::string name;                  ///< of the snapshot; empty if there is nothing to save
  std::vector<std::string> missing;  ///< absolute paths of live files that are not in it
  std::optional<Snapshot> made;      ///< the row, unless one was stored that equals
};

/// Saves the present configuration as a snapshot of type full, unless a stored one equals it. `loading` is
/// neither replaced, nor taken for a copy of the present configuration.
Result<Kept> keep_configuration(const Snapshot& loading, const Deadline& deadline,
                                std::vector<std::string>& warnings);

/// Code::incomplete if `plan` replaces or removes a file that `kept` does not hold.
Error check_kept(const Kept& kept, const DetailedPlan& plan);

/// After the restore has failed: removes the row that keep_configuration() made for it, if any, unless
/// somebody pinned it, or the live files are not as they are in it.
void take_back_kept(const Kept& kept, const Deadline& deadline);

/// Removes the snapshots that keep_configuration() made, except the newest five, those that are pinned,
/// `loading`, and those named `kept`.
void remove_old_kept(const Snapshot& loading, const std::string& kept, const Deadline& deadline,
                     std::vector<std::string>& warnings);

}  // namespace ConfSave::snapshots
