// Moves what belongs to a database that goes away into the staging directory.

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "snapshots/database_logs.h"
#include "snapshots/exchange.h"

namespace ConfSave::snapshots {

/// Whether this is the file of before, or the one of the snapshot: its own step looks after it.
bool Exchange::is_of_a_step(std::size_t root, const std::string& path, const Identity& live) const {
  return std::any_of(steps_.begin(), steps_.end(), [&](const Step& step) {
    return step.root == root && step.path == path &&
           (is_same_file(live, step.before) || is_same_file(live, step.after));
  });
}

/// The database of before would be changed by the logs of the one that goes: they are gone, durably, before
/// it comes back.
Error Exchange::set_logs_aside(const Step& step, const Slot& slot) {
  Beneath& beneath = sites_[step.root].beneath;
  for (const std::string& log : logs_of(step.path)) {
    const Result<std::optional<struct stat>> found = beneath.look(log);
    if (!found) return found.error();
    if (!*found || !S_ISREG((*found)->st_mode) || is_of_a_step(step.root, log, identity_of(**found)))
      continue;
    const Result<int> parent = beneath.directory(parent_of(log));
    if (!parent) return parent.error();
    std::string name = log_slot(slot.name, log);
    while (move(*parent, name_of(log), slot.staging, name) != 0) {
      // Somebody has opened the database since the last try.
      if (errno != EEXIST) return beneath.failure(log, errno);
      name += '~';
    }
    if (fsync(slot.staging) != 0 || fsync(*parent) != 0) return beneath.failure(log, errno);
    touched_[step.root].insert(parent_of(log));
  }
  return {};
}

}  // namespace ConfSave::snapshots
