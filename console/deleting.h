#pragma once

// What the verbs share that delete by a rule.

#include <vector>

#include "report.h"

namespace console {

/// Tries again to delete what another program had locked, until `deadline`: the library waits a second at a
/// time. What goes moves to `deleted`.
void delete_again(std::vector<cs::Undeleted>& undeleted, const Deadline& deadline,
                  std::vector<cs::Victim>& deleted);

/// Prints why these snapshots were not deleted. Returns the exit status.
int report_undeleted(const std::vector<cs::Undeleted>& undeleted);

}  // namespace console
