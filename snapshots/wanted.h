#pragma once

#include <map>
#include <string>

#include "snapshots/decoded_files.h"
#include "snapshots/row_reader.h"

namespace ConfSave::snapshots {

/// A file that a snapshot restores.
struct Wanted {
  Member member;  ///< its path is where the restore puts it
  Base base = Base::configuration;
  /// Which entry of the archive has the content; the same for all names of one file. -1 for a directory
  /// that the archive does not have, and that its members need.
  int64 entry = -1;
};

/// Where the archive of each base is restored. The directories end in "/".
struct Destinations {
  std::string configuration;
  std::string failover;

  /// Those of the platform, or `target` for both.
  static Destinations of(const std::string& target);

  const std::string& of(Base base) const { return base == Base::configuration ? configuration : failover; }
};

/// Decodes both archives to the end. By path, except what a restore never brings back: the file of the
/// running packet filter, and top-level names that begin with a dot. `check` compares the content with the
/// files at the destinations; those that differ are left in `decoded`.
Result<std::map<std::string, Wanted>> read_wanted(OpenRow& row, const Destinations& destinations,
                                                  ContentCheck& check, DecodedFiles& decoded,
                                                  const PackedProgress& progress = {});

/// The mode of a restored file that gets this owner and group. Without the recorded owner it loses set-id
/// bits; without the recorded group, that group gets no more than others.
mode_t mode_for(const Member& member, std::uint32_t owner, std::uint32_t group);

/// Whether this process may give a file of its user to the group.
bool may_give_to(std::uint32_t group);

/// The file of the running packet filter, wherever it is, is never restored, and never removed.
bool is_of_packet_filter(const std::string& path);

}  // namespace ConfSave::snapshots
