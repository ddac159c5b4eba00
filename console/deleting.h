#pragma once

// What the verbs share that delete by a rule.

#include <vector>

#include "report.h"

namespace console {

/// Tries again to delete what another program had locked, within `seconds`: the library waits a second at a
/// time. What goes moves to `deleted`.
void delete_again(std::vector<cs::Undeleted>& undeleted, unsigned seconds,
                  std::vector<cs::Victim>& deleted);

/// Prints why these snapshots were not deleted. Returns the exit status.
int report_undeleted(const std::vector<cs::Undeleted>& undeleted);

}  // namespace console
