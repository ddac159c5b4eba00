#pragma once

// Which stored snapshots a verb is about.

#include <confsave/snapshots.h>

#include <optional>

#include "options.h"

namespace console {

namespace cs = ConfSave::snapshots;

/// The one snapshot that is selected by a name or by a pattern, to be read, within the time that the
/// options allow. Otherwise prints the reason and sets `status`.
std::optional<cs::Snapshot> choose(const Selection& selection, const Options& options, int& status);

/// The same, or all with --all.
std::optional<cs::Snapshots> choose_some(const Options& options, int& status);

/// The one, to be restored.
std::optional<cs::Snapshot> choose_to_restore(const Options& options, int& status);

/// The same by a name, to be changed.
std::optional<cs::Snapshot> choose_to_change(const Options& options, int& status);

}  // namespace console
