#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "contents.h"
#include "snapshots/database_logs.h"
#include "snapshots/limits.h"
#include "snapshots/secrets.h"
#include "snapshots/stamp.h"

namespace ConfSave::snapshots {

/// A file of the live configuration.
struct LiveMember {
  Member member;
  Stamp stamp;
  std::uint32_t checksum = 0;  ///< the CRC-32 of a regular file that was read
};

/// The live configuration.
struct Tree {
  int64 moment = 0;  ///< when its reading began, in nanoseconds since the epoch
  std::map<std::string, LiveMember> members;
  std::set<std::string> sockets;  ///< that were skipped, where a directory was read
};

/// What is known of the content of live files without reading them.
class KnownDigests {
 public:
  KnownDigests();
  KnownDigests(const KnownDigests&) = delete;
  KnownDigests& operator=(const KnownDigests&) = delete;
  virtual ~KnownDigests() = default;

  /// When it was made: no digest of it is of a file as it was before.
  int64 moment() const { return moment_; }

  /// Of the regular file that has this absolute path and this stamp; null if it has to be read.
  virtual const Digest* digest_of(const std::string& path, const Stamp& stamp) const = 0;

 private:
  int64 moment_;
};

/// The files of the contents of `type` as they are now, by absolute path. Follows no symbolic link below
/// the two directories: one in a directory's place is Code::unsafe, as a device or FIFO is. Skips sockets,
/// as tar does, and a configuration database that is not whole, as a save does. Reads a file again that
/// changes while it is read; after some attempts that is Code::changed_meanwhile. The paths of files and
/// directories that this process may not read go into `unreadable`; without it the first one is
/// Code::denied. A file of which `known` has the digest is not read.
Result<Tree> read_tree(conftype type, const Limits& limits = {},
                       std::vector<std::string>* unreadable = nullptr, const KnownDigests* known = nullptr);

/// The same. A file that provably did not change since `saved` was read is not read: it has the digest that
/// it had then. A stamp proves that unless its times are so close to the moment of `saved` that a change
/// right after it could have left the same times, or the clock went back since.
Result<Tree> read_tree_since(const Tree& saved, conftype type, const Limits& limits = {});

/// What to read in one of the directories, which ends in "/".
struct TreePart {
  Base base = Base::configuration;
  std::string directory;
  std::vector<std::string> paths;  ///< relative; as the contents have them, with all that is below
  std::vector<std::string> alone;  ///< relative; a directory without what is below
  Secrets secrets;
  std::set<std::string> locked =  ///< relative; the host may have locks on them
      base == Base::configuration ? locked_paths() : std::set<std::string>();
};

/// The parts that read_tree reads. Asks the platform for the directories; reading the parts does not.
std::vector<TreePart> parts_of(conftype type);

/// The files at these paths, as read_tree reads them.
Result<Tree> read_parts(const std::vector<TreePart>& parts, const KnownDigests* known = nullptr);

}  // namespace ConfSave::snapshots
