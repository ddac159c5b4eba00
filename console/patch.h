#pragma once

#include <optional>

#include "report.h"

namespace console {

/// What is compared.
struct Sides {
  cs::Snapshot older;
  std::optional<cs::Snapshot> newer;  ///< no value: the live configuration
};

/// Prints what diff -u says about every file whose content differs, never the content of a key file. Prints
/// the reason when one cannot be compared, and returns the exit status.
int print_patches(const Sides& sides, const cs::Differences& differences);

}  // namespace console
