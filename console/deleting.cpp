#include "deleting.h"

#include <algorithm>
#include <iostream>

#include "exit_status.h"
#include "text.h"
#include "turns.h"

namespace console {
namespace {

/// False if it has gone, or was overwritten, since it was listed.
cs::Result<bool> is_there(const cs::Snapshot& snapshot, std::chrono::milliseconds wait) {
  cs::Query query;
  query.corlu_config = true;
  query.wait = wait;
  const auto rows = cs::list(query);
  if (!rows) return rows.error();
  return std::any_of(rows->begin(), rows->end(), [&](const cs::Snapshot& row) {
    return row.id == snapshot.id && row.config.save_time == snapshot.config.save_time;
  });
}

/// True too if the snapshot has gone meanwhile.
cs::Result<bool> delete_one(const cs::Snapshot& snapshot, std::chrono::milliseconds wait) {
  const auto found = is_there(snapshot, wait);
  if (!found) return found.error();
  if (!*found) return true;
  cs::RemoveOptions how;
  how.wait = wait;
  cs::Error error = cs::remove(id_of(snapshot), how);
  if (error.code == cs::Code::ok || error.code == cs::Code::not_found) return true;
  return error;
}

}  // namespace

void delete_again(std::vector<cs::Undeleted>& undeleted, const Deadline& deadline,
                  std::vector<cs::Victim>& deleted) {
  std::vector<cs::Undeleted> left;
  for (cs::Undeleted& one : undeleted) {
    if (one.error.code != cs::Code::busy || interrupted()) {
      left.push_back(std::move(one));
      continue;
    }
    const auto result =
        in_turns(deadline, [&](auto wait) { return delete_one(one.victim.snapshot, wait); });
    if (result) {
      deleted.push_back(std::move(one.victim));
      continue;
    }
    one.error = result.error();
    left.push_back(std::move(one));
  }
  undeleted = std::move(left);
}

int report_undeleted(const std::vector<cs::Undeleted>& undeleted) {
  std::cout.flush();
  for (const cs::Undeleted& one : undeleted) {
    std::cerr << "confsave: '" << label(one.victim.snapshot)
              << "' was not deleted: " << reason_and_step(one.error) << '\n';
  }
  return undeleted.empty() ? kDone : kFailed;
}

}  // namespace console
