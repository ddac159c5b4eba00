#pragma once

#include "snapshots/bundle.h"

namespace ConfSave::snapshots {

/// What was found in order, so that it can be recognised later.
struct CheckedRow {
  BundleRow row;
  ArchiveDigests archives;
  Digest notes{};
};

/// Decodes both archives to the end and compares them with the manifest, if there is one. Besides what a
/// restore refuses, a member that is set-uid or set-gid is Code::unsafe.
Result<CheckedRow> check_row(Bundle& bundle, const BundleRow& row);

/// The note and the manifest of a row that was checked; Code::changed_meanwhile if they are others now.
struct RowNotes {
  Note note;
  std::optional<Manifest> manifest;
};
Result<RowNotes> notes_of(Bundle& bundle, const CheckedRow& row);

}  // namespace ConfSave::snapshots
