#pragma once

#include <confsave.h>

#include <optional>
#include <string>

#include "deadline.h"

namespace console {

/// What a person names a snapshot by: NAME, or NAME@VERSION.
struct Selection {
  std::string name;                        ///< a name, or a pattern where the verb takes one
  std::optional<ConfSave::int64> version;  ///< 0: the snapshot that has no version
};

constexpr unsigned kWaitOfReaders = 1;  ///< seconds, of a verb without --wait

/// The parsed arguments of a verb. A verb reads the operands and options that its row of the table lists.
struct Options {
  Selection snapshot;
  Selection other;
  std::string text;
  std::string exchanged;          ///< the file of an export or import; "-" is a pipe
  std::optional<std::string> as;  ///< the new name
  ConfSave::conftype type = ConfSave::conf_full;
  std::optional<ConfSave::int64> version;  ///< --version, until it is part of `snapshot`
  std::string target;
  std::string check;
  std::string file;
  std::string comment;
  std::optional<ConfSave::int64> upto;
  std::string sort;
  unsigned days = 31;
  unsigned max = 0;
  unsigned keep_newest = 0;
  std::optional<unsigned> older_than;  ///< days
  std::optional<std::string> match;
  unsigned wait = 30;
  Deadline deadline{kWaitOfReaders};  ///< of the verb, from its start
  unsigned confirm_within = 0;        ///< seconds; 0: no confirmation
  bool force = false;
  bool yes = false;
  bool exact = false;
  bool dry_run = false;
  bool keep = true;
  bool if_due = false;
  bool when_due = false;
  bool all = false;
  bool json = false;
  bool table = false;
  bool patch = false;
  bool if_changed = false;
};

/// The same after a question: the time in which a person thinks does not count.
inline Options renewed(Options options) {
  options.deadline = Deadline(options.wait);
  return options;
}

}  // namespace console
