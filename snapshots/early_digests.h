#pragma once

#include <future>
#include <optional>

#include "snapshots/saved_digests.h"

namespace ConfSave::snapshots {

/// The live files of `type` with their digests, read in a thread of its own while the caller waits for tar.
/// The thread also loads libarchive, which the caller needs next. It ends before this object does, and runs
/// no handler of a signal. If it cannot be started or fails, no file is known.
class EarlyDigests {
 public:
  explicit EarlyDigests(conftype type);

  /// Waits for the thread. Before that no file is known.
  void wait();

  /// The regular file that has this absolute path and this stamp; null unless it is known. What is written
  /// into it through a mapping changes no stamp: compare the checksum, too.
  const LiveMember* find(const std::string& path, const Stamp& stamp) const;

  /// Frees the memory. No file is known any more.
  void forget();

 private:
  std::future<Tree> reading_;
  Tree tree_;
  std::optional<SavedDigests> known_;
};

}  // namespace ConfSave::snapshots
