#pragma once

#include <optional>

#include "snapshots/deadline.h"
#include "snapshots/journal.h"

namespace ConfSave::snapshots {

/// The restore that is not finished, if there is one.
Result<std::optional<Record>> read_record(const Deadline& deadline);

/// What became of a restore whose process is gone, without a full stop.
std::string interruption(const Record& record);

/// Code::pending.
Error refuse_pending(const Snapshot& snapshot);

/// When a pending restore is taken back.
enum class Demand { when_due, now };

/// What recover() does. Why the journal is not free afterwards is in `unfinished`. A failure like `logged`,
/// the last one of a caller who tries again and again, is not logged anew.
Result<Recovery> recover_under_lock(const Deadline& deadline, Error& unfinished, Demand demand,
                                    Error* logged = nullptr);

/// Recovers what an earlier process has left, if anything, so that the live files are all old or all new.
/// The caller holds "confsave.lock".
Error recover_first(const Deadline& deadline);

/// The same, with the clean-up: the journal is free for another restore.
Error recover_wholly(const Deadline& deadline);

/// Code::pending or Code::needs_attention while a restore is not finished, except one that is at work now.
/// Changes nothing.
Error check_finished(const Deadline& deadline);

}  // namespace ConfSave::snapshots
