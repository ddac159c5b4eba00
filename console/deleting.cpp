#include "deleting.h"

#include <algorithm>
#include <iostream>

#include "exit_status.h"
#include "text.h"
#include "turns.h"

namespace console {
namespace {

/// True too if the snapshot has gone meanwhile.
cs::Result<bool> delete_one(const cs::Snapshot& snapshot, std::chrono::milliseconds wait) {
  cs::RemoveOptions how;
  how.wait = wait;
  cs::Error error = cs::remove(snapshot, how);
  if (error.code == cs::Code::ok || error.code == cs::Code::not_found) return true;
  return error;
}

}  // namespace

void delete_again(std::vector<cs::Undeleted>& undeleted, const Deadline& deadline,
                  std::vector<cs::Victim>& deleted) {
  // What is decided already is finished, even if the work before took all of the time.
  constexpr unsigned kGrace = 2;
  const Deadline end = std::max(deadline, Deadline(kGrace));
  std::vector<cs::Undeleted> left;
  for (cs::Undeleted& one : undeleted) {
    if (one.error.code != cs::Code::busy || interrupted()) {
      left.push_back(std::move(one));
      continue;
    }
    const auto result = in_turns(end, [&](auto wait) { return delete_one(one.victim.snapshot, wait); });
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
    const char* what = may_be_done(one.error) ? "': " : "' was not deleted: ";
    std::cerr << "confsave: '" << label(one.victim.snapshot) << what << reason_and_step(one.error, true)
              << '\n';
  }
  return undeleted.empty() ? kDone : kFailed;
}

}  // namespace console
