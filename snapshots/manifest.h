#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "snapshots/database.h"
#include "snapshots/parents.h"
#include "snapshots/tree.h"

namespace ConfSave::snapshots {

/// What a save found: the files that are in the archives, as they were then.
struct Manifest {
  Tree tree;
  std::vector<std::string> missing;  ///< absolute paths that were expected and are not in the archives
  Parents parents = {};              ///< none in a manifest that an older version wrote
};

/// The tables of the manifests, and the one that later came to them. A manifest that lacks one of its
/// members does not count.
extern const char* const kManifestTables;
extern const char* const kParentTable;

/// Replaces the manifest of `snapshot`. The caller has begun a transaction.
Error write_manifest(Database& notes, const Snapshot& snapshot, const Manifest& manifest);

/// A manifest of the notes, read piece by piece. The caller has begun a transaction.
class ManifestReader {
 public:
  /// No value without a whole manifest that belongs to `snapshot` and has files of the directory
  /// `configuration` (if empty, of any) and the failover directory. `notes` must outlive the reader.
  static Result<std::optional<ManifestReader>> open(Database& notes, const Snapshot& snapshot,
                                                    const std::string& configuration);

  int64 moment() const { return moment_; }
  /// No value if the manifest does not have it.
  Result<std::optional<LiveMember>> find(const std::string& path);
  /// In the order of paths.
  Error for_each(const std::function<void(LiveMember)>& take);
  /// All of them.
  Result<Tree> tree();
  Result<std::vector<std::string>> missing();
  Result<Parents> parents();

 private:
  ManifestReader(Database& notes, int64 id, int64 moment) : notes_(&notes), id_(id), moment_(moment) {}

  Error damaged() const;

  Database* notes_;
  int64 id_;
  int64 moment_;
  std::optional<Statement> find_;
};

/// Deletes the manifest of the row `id`. The caller has begun a transaction.
Error delete_manifest(Database& notes, int64 id);

}  // namespace ConfSave::snapshots
