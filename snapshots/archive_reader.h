#pragma once

#include <functional>
#include <string>

#include "snapshots/limits.h"
#include "snapshots/source.h"

namespace ConfSave::snapshots {

/// One entry of an archive, checked: its path is relative, without "." and "..", and not below a link of
/// the same archive.
struct Entry {
  std::string path;  ///< relative
  Kind kind = Kind::file;
  std::uint32_t mode = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::string user;  ///< name of the owner; empty if the number counts
  std::string group;
  int64 size = 0;  ///< bytes of content; 0 unless a file
  int64 time = 0;
  std::string
      target;  ///< of a symbolic link, as stored; of a hard link the relative path of an earlier file
};

/// What reading an archive calls. A function that returns an error ends the reading with it.
struct EntryHandler {
  std::function<Error(const Entry&)> begin;
  /// The content of the last entry, in pieces, without holes.
  std::function<Error(std::string_view)> content;
  std::function<Error()> end;
};

/// Reads the gzip tar archive that `packed` holds to its end, and gives its entries to `handler` one after
/// another. Code::damaged: it cannot be decoded to the end. Code::unsafe: an entry that a restore must not
/// follow, or a limit that is exceeded; `path` of the error is the entry's. An archive without entries is
/// in order.
Error read_archive(Source& packed, const Limits& limits, const EntryHandler& handler);

}  // namespace ConfSave::snapshots
