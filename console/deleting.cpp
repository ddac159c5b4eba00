#include "deleting.h"

#include <iostream>

#include "exit_status.h"
#include "text.h"
#include "turns.h"

namespace console {
namespace {

/// True too if the snapshot has gone meanwhile.
cs::Result<bool> delete_one(const cs::Id& id, std::chrono::milliseconds wait) {
  cs::RemoveOptions how;
  how.wait = wait;
  cs::Error error = cs::remove(id, how);
  if (error.code == cs::Code::ok || error.code == cs::Code::not_found) return true;
  return error;
}

}  // namespace

void delete_again(std::vector<cs::Undeleted>& undeleted, unsigned seconds,
                  std::vector<cs::Victim>& deleted) {
  std::vector<cs::Undeleted> left;
  for (cs::Undeleted& one : undeleted) {
    if (one.error.code != cs::Code::busy || interrupted()) {
      left.push_back(std::move(one));
      continue;
    }
    const cs::Id id = id_of(one.victim.snapshot);
    const auto result = in_turns(seconds, [&](auto wait) { return delete_one(id, wait); });
    if (result) {
      deleted.push_back(std::move(one.victim));
      continue;
    }
    one.error = result.error();
    // The next one would wait as long again.
    if (one.error.code == cs::Code::busy) seconds = 0;
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
