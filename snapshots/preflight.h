#pragma once

#include <vector>

#include "snapshots/exchange.h"
#include "snapshots/plan.h"

namespace ConfSave::snapshots {

/// A record for `plan`, without steps: the directories that have some, each with a name for a staging
/// directory that nobody has used. The roots of the plan's steps become those of the record.
Result<Record> begin_record(DetailedPlan& plan);

/// Refuses what staging or the exchange would refuse: too little room, a directory that must not be
/// written to, another file system below a directory.
Error check_sites(std::vector<Site>& sites, const DetailedPlan& plan);

/// Code::changed_meanwhile if one of the files that will change is not the one that the plan compared.
Error check_live_files(const DetailedPlan& plan, std::vector<Site>& sites);

}  // namespace ConfSave::snapshots
