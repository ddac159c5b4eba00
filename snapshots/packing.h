#pragma once

#include <vector>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// The archives of one snapshot, as they are stored. An archive that the type does not have is empty.
struct Packed {
  std::vector<char> keybase;
  std::vector<char> etc;
};

/// Packs the live configuration as the contract library does, by its class Archive. The error of a command
/// that failed is Code::failed or Code::no_space: tar does not say why, and a file that changed is one
/// reason.
Result<Packed> pack_configuration(conftype type);

}  // namespace ConfSave::snapshots
