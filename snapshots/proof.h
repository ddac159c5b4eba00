#pragma once

#include <string>
#include <vector>

#include "snapshots/packing.h"
#include "snapshots/phases.h"
#include "snapshots/tree.h"

namespace ConfSave::snapshots {

/// Archives that were decoded to the end, and hold the live configuration of one moment: each file was the
/// same when it was packed and when it was compared, so all of them were so in between.
struct Proven {
  Packed packed;
  Tree tree;                         ///< what is in the archives
  std::vector<std::string> missing;  ///< files of the contents that tar could not read
};

/// Packs until the archives equal the live files; Code::changed_meanwhile after some attempts. Another
/// error of reading the live files is returned at once; another one of packing, if the live files are as
/// they were after the attempt before, or after the last attempt.
Result<Proven> pack_and_prove(conftype type, Phases& phases);

}  // namespace ConfSave::snapshots
