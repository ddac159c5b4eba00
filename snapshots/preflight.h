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

/// Refuses an undo of `steps` that would fail half-way, as far as that can be seen.
Error check_way_back(std::vector<Site>& sites, const std::vector<Step>& steps);

/// Code::changed_meanwhile if one of the files that will change is not the one that the plan compared.
Error check_live_files(const DetailedPlan& plan, std::vector<Site>& sites);

}  // namespace ConfSave::snapshots
