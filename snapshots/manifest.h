#pragma once

#include <string>
#include <vector>

#include "snapshots/database.h"
#include "snapshots/tree.h"

namespace ConfSave::snapshots {

/// What a save found: the files that are in the archives, as they were then.
struct Manifest {
  Tree tree;
  std::vector<std::string> missing;  ///< absolute paths that were expected and are not in the archives
};

/// The tables of the manifests. A manifest that lacks one of its rows does not count.
extern const char* const kManifestTables;

/// Replaces the manifest of `snapshot`. The caller has begun a transaction.
Error write_manifest(Database& notes, const Snapshot& snapshot, const Manifest& manifest);

/// No value if there is none that belongs to `snapshot`, or not all of it. The caller has begun a
/// transaction.
Result<std::optional<Manifest>> read_manifest(Database& notes, const Snapshot& snapshot);

/// Deletes the manifest of the row `id`. The caller has begun a transaction.
Error delete_manifest(Database& notes, int64 id);

}  // namespace ConfSave::snapshots
