#pragma once

#include <optional>
#include <string>
#include <vector>

#include "confsave/snapshots.h"
#include "snapshots/deadline.h"

namespace ConfSave::snapshots {

/// Which snapshots have to go.
struct Surplus {
  std::optional<std::string> pattern = {};  ///< of the name; autosaves without one
  int64 keep = 0;                           ///< so many of the newest stay
  std::optional<int64> saved_before = {};   ///< only these go
  std::optional<Snapshot> fresh = {};       ///< was decoded just now, counts as the newest, and stays
  std::vector<Unfinished> unfinished = {};  ///< the snapshots of these restores stay
};

/// Adds the restore that is not finished now, if there is one.
Error add_unfinished(Surplus& surplus, const Deadline& deadline);

/// What goes, the oldest first, and how many of those that count stay. Changes nothing.
struct Choice {
  std::vector<Victim> victims;
  int64 kept = 0;
};
Result<Choice> choose_victims(const Surplus& surplus, const Deadline& deadline);

/// Deletes the victims. The caller holds "confsave.lock". One that cannot be deleted does not stop
/// the others; one that somebody else has deleted is in neither list.
void delete_victims(std::vector<Victim> victims, const Deadline& deadline, std::vector<Victim>& deleted,
                    std::vector<Undeleted>& undeleted);

}  // namespace ConfSave::snapshots
