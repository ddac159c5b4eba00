#include "choosing.h"

#include <algorithm>
#include <chrono>
#include <iostream>

#include "exit_status.h"
#include "names.h"
#include "report.h"
#include "text.h"
#include "turns.h"
#include "values.h"

namespace console {
namespace {

/// More lines than that scroll the question away.
constexpr std::size_t kMostCandidates = 20;

int print_not_found(const Selection& selection) {
  const std::string version = selection.version ? "@" + version_text(*selection.version) : "";
  std::cerr << "confsave: nothing is stored as '" << printable(selection.name + version)
            << "'. 'confsave list' lists what is.\n";
  return kNotFound;
}

int print_candidates(const Selection& selection, const cs::Snapshots& found) {
  std::cerr << "confsave: '" << printable(selection.name)
            << "' matches more than one snapshot. Give one of them:\n";
  const std::size_t shown = std::min(found.size(), kMostCandidates);
  for (std::size_t i = 0; i < shown; ++i) {
    const ConfSave::Config& config = found[i].config;
    std::cerr << "  " << label(found[i]) << ", " << config.type << ", saved on "
              << ConfSave::time_format(config.save_time) << '\n';
  }
  if (shown < found.size()) std::cerr << "  and " << found.size() - shown << " more\n";
  return kAmbiguous;
}

/// `waits`: the verb has the option --wait.
std::optional<cs::Snapshot> find_only(const Selection& selection, const Deadline& deadline, bool waits,
                                      int& status) {
  const bool is_exact = is_name(selection.name);
  cs::Query query;
  query.pattern = selection.name;
  query.version = selection.version;
  query.corlu_config = is_exact;
  auto found = in_turns(deadline, [&](std::chrono::milliseconds wait) {
    query.wait = wait;
    return cs::list(query);
  });
  if (!found) {
    status = report(found.error(), waits);
    return std::nullopt;
  }
  // A foreign name may go on after a NUL byte, which ends a pattern.
  const auto is_other = [&](const cs::Snapshot& snapshot) {
    return snapshot.config.name != selection.name;
  };
  if (is_exact) found->erase(std::remove_if(found->begin(), found->end(), is_other), found->end());
  status = kDone;
  if (found->size() == 1) return found->front();
  status = found->empty() ? print_not_found(selection) : print_candidates(selection, *found);
  return std::nullopt;
}

}  // namespace

std::optional<cs::Snapshot> choose(const Selection& selection, const Options& options, int& status) {
  status = kUsage;
  if (!check_pattern(selection.name)) return std::nullopt;
  return find_only(selection, options.deadline, false, status);
}

std::optional<cs::Snapshots> choose_some(const Options& options, int& status) {
  if (!options.all) {
    const auto one = choose(options.snapshot, options, status);
    return one ? std::optional<cs::Snapshots>({*one}) : std::nullopt;
  }
  cs::Query query;
  query.corlu_config = true;
  query.wait = options.deadline.left();
  auto all = cs::list(query);
  if (all) return *all;
  status = report(all.error());
  return std::nullopt;
}

std::optional<cs::Snapshot> choose_to_restore(const Options& options, int& status) {
  status = kUsage;
  if (!check_pattern(options.snapshot.name)) return std::nullopt;
  return find_only(options.snapshot, options.deadline, true, status);
}

std::optional<cs::Snapshot> choose_to_change(const Options& options, int& status) {
  status = kUsage;
  if (!check_name(options.snapshot.name)) return std::nullopt;
  return find_only(options.snapshot, options.deadline, true, status);
}

}  // namespace console
