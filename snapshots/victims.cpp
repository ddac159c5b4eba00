#include "snapshots/victims.h"

#include <algorithm>
#include <set>

#include "snapshots/audit.h"
#include "snapshots/listing.h"
#include "snapshots/under_lock.h"

namespace ConfSave::snapshots {
namespace {

Id id_of(const Snapshot& snapshot) { return {snapshot.config.name, snapshot.config.vers}; }

/// Unlike list(), fails without notes that can be read: one of them could be a pin.
Result<Snapshots> rows_with_pins(const std::string& pattern, const Deadline& deadline) {
  Query query;
  query.pattern = pattern;
  query.wait = deadline.left();
  Listing opened;
  Result<Snapshots> rows = list_rows(query, deadline, opened);
  if (rows && opened.notes_error.code != Code::ok) return opened.notes_error;
  return rows;
}

bool is_newer(const Snapshot& one, const Snapshot& other) {
  if (one.config.save_time != other.config.save_time) {
    return one.config.save_time > other.config.save_time;
  }
  return one.id > other.id;
}

class Choosing {
 public:
  Choosing(const Surplus& surplus, const Deadline& deadline) : surplus_(surplus), deadline_(deadline) {}

  Result<Choice> run() {
    Result<Snapshots> rows = rows_with_pins(surplus_.pattern.value_or("autosave-*"), deadline_);
    if (!rows) return rows.error();
    rows->erase(
        std::remove_if(rows->begin(), rows->end(), [this](const Snapshot& row) { return !counts(row); }),
        rows->end());
    std::sort(rows->begin(), rows->end(),
              [this](const Snapshot& one, const Snapshot& other) { return comes_first(one, other); });
    divide(*rows);
    if (Error error = spare_the_last_whole_one(); error.code != Code::ok) return error;
    std::reverse(choice_.victims.begin(), choice_.victims.end());
    return std::move(choice_);
  }

 private:
  bool counts(const Snapshot& row) const {
    const auto is_of = [&row](const Unfinished& restore) {
      return restore.name == row.config.name && restore.version == row.config.vers;
    };
    const bool matches = surplus_.pattern || is_autosave(row.config.name);
    return matches && !row.pinned &&
           std::none_of(surplus_.unfinished.begin(), surplus_.unfinished.end(), is_of);
  }

  bool is_fresh(const Snapshot& row) const { return surplus_.fresh && surplus_.fresh->id == row.id; }

  bool comes_first(const Snapshot& one, const Snapshot& other) const {
    return is_fresh(one) != is_fresh(other) ? is_fresh(one) : is_newer(one, other);
  }

  void divide(const Snapshots& newest_first) {
    std::string reason = "not among the newest " + std::to_string(surplus_.keep);
    if (surplus_.saved_before) reason += ", and old enough";
    int64 number = 0;
    for (const Snapshot& row : newest_first) {
      const bool is_old = !surplus_.saved_before || row.config.save_time < *surplus_.saved_before;
      if (++number <= surplus_.keep || is_fresh(row) || !is_old) {
        ++choice_.kept;
      } else {
        choice_.victims.push_back({row, reason});
      }
    }
  }

  /// Decodes snapshots, those that stay first, until one is whole: as a rule one.
  Error spare_the_last_whole_one() {
    if (choice_.victims.empty() || surplus_.fresh) return {};
    Query query;
    query.wait = deadline_.left();
    Result<Snapshots> rows = list(query);
    if (!rows) return rows.error();
    std::sort(rows->begin(), rows->end(), is_newer);
    std::set<int64> victims;
    for (const Victim& victim : choice_.victims) victims.insert(victim.snapshot.id);
    for (const Snapshot& row : *rows) {
      if (victims.count(row.id) != 0) continue;
      const Result<bool> is_whole = can_be_restored(row);
      if (!is_whole) return is_whole.error();
      if (*is_whole) return {};
    }
    for (auto victim = choice_.victims.begin(); victim != choice_.victims.end(); ++victim) {
      const Result<bool> is_whole = can_be_restored(victim->snapshot);
      if (!is_whole) return is_whole.error();
      if (!*is_whole) continue;
      choice_.victims.erase(victim);
      ++choice_.kept;
      return {};
    }
    return {};
  }

  Result<bool> can_be_restored(const Snapshot& row) const {
    const Result<Verdict> verdict = verify(id_of(row), ReadOptions{deadline_.left()});
    if (verdict)
      return verdict->state == Verdict::State::intact || verdict->state == Verdict::State::unproven;
    // Another program has deleted it.
    if (verdict.error().code == Code::not_found) return false;
    return verdict.error();
  }

  const Surplus& surplus_;
  const Deadline& deadline_;
  Choice choice_;
};

}  // namespace

Error add_unfinished(Surplus& surplus, const Deadline& deadline) {
  Result<std::optional<Unfinished>> found = unfinished(ReadOptions{deadline.left()});
  if (!found) return found.error();
  if (*found) surplus.unfinished.push_back(std::move(**found));
  return {};
}

Result<Choice> choose_victims(const Surplus& surplus, const Deadline& deadline) {
  return Choosing(surplus, deadline).run();
}

void delete_victims(std::vector<Victim> victims, const Deadline& deadline, std::vector<Victim>& deleted,
                    std::vector<Undeleted>& undeleted) {
  for (Victim& victim : victims) {
    Error error = remove_under_lock(victim.snapshot, deadline);
    if (error.code == Code::ok) {
      audit("prune", victim.snapshot, "ok", {{"reason", victim.reason}});
      deleted.push_back(std::move(victim));
    } else if (error.code != Code::not_found) {
      audit("prune", id_of(victim.snapshot), error);
      undeleted.push_back({std::move(victim), std::move(error)});
    }
  }
}

}  // namespace ConfSave::snapshots
