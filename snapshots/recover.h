#pragma once

#include <optional>
#include <string>
#include <vector>

#include "snapshots/deadline.h"
#include "snapshots/exchange.h"
#include "snapshots/exclusive_storage.h"

namespace ConfSave::snapshots {

/// The restore that is not finished, if there is one.
Result<std::optional<Record>> read_record(const Deadline& deadline);

/// Code::pending.
Error refuse_pending(const Snapshot& snapshot);

/// When a pending restore is taken back.
enum class Demand { when_due, now };

/// What recover() does. Why the journal is not free afterwards is in `unfinished`.
Result<Recovery> recover_under_lock(const Deadline& deadline, Error& unfinished, Demand demand);

/// Recovers what an earlier process has left, if anything, so that the live files are all old or all new.
/// The caller holds "confsave.lock".
Error recover_first(const Deadline& deadline);

/// The same, with the clean-up: the journal is free for another restore.
Error recover_wholly(const Deadline& deadline);

/// Code::pending or Code::needs_attention while a restore is not finished, except one that is at work now.
/// Changes nothing.
Error check_finished(const Deadline& deadline);

/// Puts back the old files of all steps, durably, and cleans up. What fails is Aftermath::mixed, and stays
/// in the journal.
/// `unfinished` is why the journal is not free then.
Error take_back(Journal& journal, const Record& record, std::vector<Site>& sites, Foreign foreign,
                std::vector<std::string>& warnings, Error& unfinished);

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
