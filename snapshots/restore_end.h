#pragma once

#include <optional>
#include <string>
#include <vector>

#include "snapshots/exchange.h"
#include "snapshots/exclusive_storage.h"

namespace ConfSave::snapshots {

/// Puts back the old files of all steps, durably, and cleans up. What fails is Aftermath::mixed, and stays
/// in the journal. `unfinished` is why the journal is not free then.
Error take_back(Journal& journal, const Record& record, std::vector<Site>& sites, Foreign foreign,
                std::vector<std::string>& warnings, Error& unfinished);

/// Stores what was edited since the restore, for which it unlocks `storage` for a moment. The name is a
/// warning. Code::busy if another process has locked the storage since: it could pack a mixture if files
/// moved now.
Error store_edits(Journal& journal, Record& record, std::vector<Site>& sites,
                  std::optional<ExclusiveStorage>& storage, const Deadline& deadline,
                  std::vector<std::string>& warnings);

/// `why` a restore failed, and that `cause` keeps every file from being put back: Aftermath::mixed.
Error none_put_back(Error why, const Error& cause, const std::vector<Step>& steps,
                    const std::vector<Site>& sites);

/// `why` the end of a restore could not be recorded after its check, which has moved no file:
/// Aftermath::mixed.
Error left_live(Error why, bool is_good);

/// Deletes the staging directories and the record. What fails is a warning, too, and the record stays, so
/// that the next recovery tries again.
Error clean_up(Journal& journal, Exchange& exchange, std::vector<std::string>& warnings);

/// Commits the load time, unless `stamped` is an error, and cleans up. The restore is done: what fails is a
/// warning, and the next recovery tries again, unless the snapshot is gone.
void finish_storage(Journal& journal, Exchange& exchange, std::optional<ExclusiveStorage>& storage,
                    const Error& stamped, std::vector<std::string>& warnings);

/// Keeps a restore that has waited. After an error the journal says whether it still waits.
Error confirm_record(Journal& journal, const Record& record, std::vector<Site>& sites,
                     std::optional<ExclusiveStorage>& storage, std::vector<std::string>& warnings);

}  // namespace ConfSave::snapshots
