#include <iostream>
#include <vector>

#include "choosing.h"
#include "exit_status.h"
#include "report.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

using State = cs::Verdict::State;

const char* name_of(State state) {
  switch (state) {
    case State::intact:
      return "intact";
    case State::unproven:
      return "unproven";
    case State::damaged:
      return "damaged";
    case State::unsafe:
      break;
  }
  return "unsafe";
}

Json json_of(const cs::Verdict& verdict) {
  Json object = json_id(verdict.snapshot);
  object["result"] = name_of(verdict.state);
  object["problems"] = verdict.problems;
  object["missing"] = json_all(verdict.missing);
  return object;
}

void print(const std::vector<cs::Verdict>& verdicts, bool json) {
  if (json) {
    JsonArray array;
    for (const cs::Verdict& verdict : verdicts) array.add(json_of(verdict));
    array.end();
    return;
  }
  for (const cs::Verdict& verdict : verdicts) {
    std::cout << label(verdict.snapshot) << ": " << name_of(verdict.state) << '\n';
    for (const std::string& problem : verdict.problems) std::cout << "  " << readable(problem) << '\n';
    for (const std::string& path : verdict.missing) {
      std::cout << "  was missing at the save: " << readable(path) << '\n';
    }
  }
}

}  // namespace

int verify(const Options& options) {
  int status = kDone;
  const auto snapshots = choose_some(options, status);
  if (!snapshots) return status;
  std::vector<cs::Verdict> verdicts;
  const cs::ReadOptions limits{options.deadline.left()};
  for (const cs::Snapshot& snapshot : *snapshots) {
    // The work on many takes longer than others are waited for.
    auto verdict = cs::verify(id_of(snapshot), options.all ? cs::ReadOptions() : limits);
    // Deleted meanwhile.
    if (!verdict && verdict.error().code == cs::Code::not_found && options.all) continue;
    if (!verdict) return report(verdict.error());
    const bool can_be_restored = verdict->state != State::damaged && verdict->state != State::unsafe;
    if (!can_be_restored) status = kFindings;
    verdicts.push_back(std::move(*verdict));
  }
  print(verdicts, options.json);
  return status;
}

}  // namespace console
