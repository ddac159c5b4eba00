#pragma once

// The contents of a configuration: which paths belong to which type. The one table of them.

#include <string>
#include <vector>

#include "confsave.h"

namespace ConfSave {

/// The directory that a path of the contents is relative to.
enum class Base { configuration, failover };

/// What a path of the contents holds.
enum class Holds {
  settings,
  keys,      ///< never shown to a person
  database,  ///< part of the configuration database, which is packed whole or not at all
};

/// A path of the contents: a file, a directory with all below it, or every name that a pattern matches.
struct ContentsEntry {
  Base base;
  std::string path;  ///< relative; a "*" at its end matches as the shell's does
  std::vector<conftype> types;
  Holds holds;
};

/// Every entry, in the order of packing. The platform names some of them, so the names may change.
std::vector<ContentsEntry> contents();

/// True if `entry` belongs to a configuration of `type`. Types that are not known pack like conf_part.
bool belongs_to(const ContentsEntry& entry, conftype type);

/// The entries of `base` that belong to `type` as one text, each preceded by a blank. The configuration
/// database is among them if `with_database`.
std::string packing_list(Base base, conftype type, bool with_database);

/// The files of the configuration database below `dir`, which ends in "/", in the order of deletion.
std::vector<std::string> database_files(const std::string& dir);

/// Those of them whose presence makes the database one that is packed.
std::vector<std::string> packed_database_files(const std::string& dir);

}  // namespace ConfSave
