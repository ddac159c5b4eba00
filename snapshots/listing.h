#pragma once

#include <optional>

#include "snapshots/deadline.h"
#include "snapshots/notes.h"
#include "snapshots/storage_reader.h"

namespace ConfSave::snapshots {

/// What list() has opened. Nobody changes a row as long as `storage` lives: it is in a read transaction.
struct Listing {
  std::optional<StorageReader> storage;  ///< empty unless the file exists
  std::optional<Notes> notes;            ///< empty unless they can be opened
  Error notes_error;                     ///< why no row has notes
};

/// What list() does.
Result<Snapshots> list_rows(const Query& query, const Deadline& deadline, Listing& opened);

}  // namespace ConfSave::snapshots
