#pragma once

#include <string>
#include <utility>
#include <vector>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// Fields of an audit line, in their order.
using AuditFields = std::vector<std::pair<std::string, std::string>>;

/// Writes one line of key=value to the system log: what was done by whom to which snapshot, and how it
/// ended. An `error` of Code::busy is not logged: nothing was done, and the caller may try again at once.
void audit(const std::string& action, const Id& id, const Error& error, const AuditFields& more = {});

/// The same, for a success.
void audit(const std::string& action, const Snapshot& snapshot, const std::string& result,
           const AuditFields& more = {});

/// The same, for a restore, and for a save.
void audit_restore(const Id& id, const Result<Restored>& restored, const std::string& target);
void audit_save(const Id& id, const Result<Saved>& saved);

/// Writes that something waits for who is busy.
void audit_delay(const std::string& action, const Snapshot& snapshot, const Error& error);

}  // namespace ConfSave::snapshots
