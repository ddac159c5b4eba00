#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "snapshots/digest.h"
#include "snapshots/manifest.h"

namespace ConfSave::snapshots {

/// Compares the members of archives with a manifest, one after another. Keeps eight bytes of each member,
/// and what differs.
class ManifestCheck {
 public:
  explicit ManifestCheck(ManifestReader manifest) : manifest_(std::move(manifest)) {}

  /// Of members with the same path the last one counts. A hard link comes after its file.
  void add(const Member& member);

  /// Looks for members of the manifest that were not added.
  void look_for_absent();

  /// A sentence for each member that differs; of very many the first ones.
  std::vector<std::string> problems() const;

  /// What went wrong with the manifest; nothing is compared from then on.
  const Error& error() const { return error_; }

 private:
  struct Wrong {
    std::string text;
    Member stored;
  };

  std::uint64_t mark_of(const std::string& path);
  Error complete_link(Member& link);
  void note(const std::string& path, Wrong wrong);

  ManifestReader manifest_;
  Sha256 sha256_;
  std::vector<std::uint64_t> seen_;
  std::map<std::string, Wrong> wrong_;  ///< by path
  int64 unnamed_ = 0;
  Error error_;
};

}  // namespace ConfSave::snapshots
