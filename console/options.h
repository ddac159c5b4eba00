#pragma once

#include <confsave.h>

#include <string>

namespace console {

/// The parsed arguments of a verb. A verb reads the options that its row of the table lists.
struct Options {
  std::string name;  ///< a name, or a pattern where the verb takes one
  ConfSave::conftype type = ConfSave::conf_full;
  ConfSave::int64 version = 0;  ///< 0: not given
  bool no_version = false;      ///< --version none: the snapshot that has no version
  std::string target;
  ConfSave::int64 upto = 0;
  std::string sort;
  unsigned max = 0;
  unsigned wait = 30;
  bool force = false;
  bool yes = false;
  bool all = false;
  bool json = false;
  bool table = false;
};

}  // namespace console
