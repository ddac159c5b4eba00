#include "snapshots/under_lock.h"

#include "snapshots/recover.h"

namespace ConfSave::snapshots {

Error recover_before(const Id& id, const Deadline& deadline) {
  for (;;) {
    Error error = recover_first(deadline);
    if (error.code != Code::pending) return error;
    const Result<std::optional<Unfinished>> found = unfinished(ReadOptions{deadline.left()});
    if (!found) return found.error();
    // A process that died since leaves something to recover.
    if (!*found || !(*found)->is_pending) continue;
    return (*found)->name == id.name && (*found)->version == id.version ? error : Error{};
  }
}

}  // namespace ConfSave::snapshots
