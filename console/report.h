#pragma once

// What the library's values and errors say to a person.

#include <confsave/snapshots.h>

#include <optional>
#include <string>
#include <vector>

#include "json.h"
#include "options.h"

namespace console {

namespace cs = ConfSave::snapshots;

/// The exit status for an error.
int exit_status(cs::Code code);

/// Whether what was to be stored or deleted may be so although the call has failed.
bool may_be_done(const cs::Error& error);

/// Prints what failed, why, and what to do next. `waits`: the verb has the option --wait. Returns the exit
/// status.
int report(const cs::Error& error, bool waits = false);

/// The same for an error of storing the live configuration: what is packed is not a snapshot yet.
/// `may_force`: the verb has the option --force.
int report_packing(const cs::Error& error, bool may_force);

/// The same as words: the file, if it is one, the reason, and the next step.
std::string reason_and_step(const cs::Error& error, bool waits);

/// The same for an error of restoring or recovering: also says in which state the configuration is.
int report_restore(const cs::Error& error);
int report_restore(cs::Error error, const cs::Snapshot& snapshot);

/// The same for an error of reading the snapshots `which`: an archive's error does not name its snapshot.
int report_reading(cs::Error error, const std::string& which);

/// The same for an error of importing `file`. `is_one`: one snapshot of it was chosen.
int report_import(const cs::Error& error, const std::string& file, bool is_one);

/// Warns that comments and pins are not known.
void warn_of_notes(const cs::Error& error);

/// Prints the library's warnings.
void print_warnings(const std::vector<std::string>& warnings);

/// NAME@VERSION, as a person types it.
std::string label(const std::string& name, ConfSave::int64 version);
std::string label(const cs::Snapshot& snapshot);

/// The id, name and version.
Json json_id(const cs::Snapshot& snapshot);

/// What the library finds it by.
inline cs::Id id_of(const cs::Snapshot& snapshot) { return {snapshot.config.name, snapshot.config.vers}; }

}  // namespace console
