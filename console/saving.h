#pragma once

// What the verbs share that save: waiting, progress, warnings.

#include "report.h"

namespace console {

/// Saves, and waits for others as long as the options allow. Ends at an interrupt. Shows progress at a
/// terminal.
cs::Result<cs::Saved> save_in_time(const cs::Id& id, cs::SaveOptions how, const Deadline& deadline);

/// The same over a snapshot, if that is still the same and not pinned.
cs::Result<cs::Saved> save_over_in_time(const cs::Snapshot& old, cs::SaveOptions how,
                                        const Deadline& deadline);

/// The same for an autosave.
cs::Result<cs::Autosaved> autosave_in_time(cs::AutosaveOptions how, const Deadline& deadline);

/// Prints why nothing was stored. `may_force`: the verb has the option --force. Returns the exit status.
int report_unsaved(cs::Error error, bool may_force);

/// Prints what is not in the snapshot, and the library's warnings.
void print_warnings(const cs::Saved& saved);

/// Prints that nothing was stored, if that is so.
void print_if_unchanged(const cs::Saved& saved);

}  // namespace console
