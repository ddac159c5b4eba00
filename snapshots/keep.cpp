#include "snapshots/keep.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <memory>
#include <optional>
#include <set>

#include "snapshots/access.h"
#include "snapshots/arguments.h"
#include "snapshots/audit.h"
#include "snapshots/compare.h"
#include "snapshots/dated_name.h"
#include "snapshots/differences.h"
#include "snapshots/missing.h"
#include "snapshots/notes.h"
#include "snapshots/plan.h"
#include "snapshots/sentence.h"
#include "snapshots/text.h"
#include "snapshots/under_lock.h"

namespace ConfSave::snapshots {
namespace {

constexpr const char* kPrefix = "before-load-";
constexpr std::size_t kMostKept = 5;
/// Reading manifests takes time, and an old snapshot is seldom equal. No more than are kept: none of these
/// is removed right afterwards.
constexpr std::size_t kMostCompared = kMostKept;

/// The newest first. By id: a gateway's clock may have been wrong.
Result<Snapshots> newest_rows(const std::string& pattern, const Deadline& deadline) {
  Query query;
  query.pattern = pattern;
  query.wait = deadline.left();
  Result<Snapshots> rows = list(query);
  if (rows) std::reverse(rows->begin(), rows->end());
  return rows;
}

/// Compares the live configuration with manifests.
class Comparing {
 public:
  explicit Comparing(Notes notes) : notes_(std::move(notes)) {}

  /// False too if one of the two cannot be read, or files are there that a save leaves out: then a save
  /// says so.
  bool equals_live(const Snapshot& snapshot) {
    if (!has_live_files(snapshot, {})) return false;
    std::set<std::string> present;
    for (const auto& [path, live] : (*live_)->members) present.insert(path);
    return database_remains(present).empty();
  }

  /// The same without the files that the save has left out: `missing`.
  bool has_live_files(const Snapshot& snapshot, const std::set<std::string>& missing) {
    const Result<std::optional<Tree>> found = notes_.tree(snapshot);
    if (!found || !*found) return false;
    const Tree& saved = **found;
    if (!live_) live_ = std::make_unique<Result<Tree>>(read_tree_since(saved, conf_full));
    if (!*live_) return false;
    const Differences differing = differences(saved.members, (*live_)->members);
    return std::all_of(differing.begin(), differing.end(), [&missing](const Difference& difference) {
      return missing.count(difference.path) != 0;
    });
  }

 private:
  Notes notes_;
  std::unique_ptr<Result<Tree>> live_;
};

/// The name of a full snapshot that equals the live configuration; empty if none does. Those of other
/// versions do not count: a name alone does not find them.
Result<std::string> find_equal(const Snapshots& newest, const Snapshot& loading, const Deadline& deadline) {
  Result<std::optional<Notes>> notes = Notes::open(deadline.left());
  if (!notes || !*notes) return std::string();
  Comparing comparing(std::move(**notes));
  std::size_t compared = 0;
  for (const Snapshot& snapshot : newest) {
    const Config& config = snapshot.config;
    const bool counts =
        config.type == conf_full && config.vers == CURRENT_VERSION && snapshot.id != loading.id;
    if (!counts) continue;
    if (comparing.equals_live(snapshot)) {
      const Result<bool> is_equal = has_bytes_of_live(snapshot, deadline);
      if (!is_equal) return is_equal.error();
      if (*is_equal) return config.name;
    }
    if (++compared == kMostCompared) break;
  }
  return std::string();
}

std::string free_name(const Snapshots& rows) {
  std::set<std::string> taken;
  for (const Snapshot& row : rows) taken.insert(row.config.name);
  const std::string base = dated_name(kPrefix, std::time(nullptr));
  std::string name = base;
  for (int number = 1; taken.count(name) != 0; ++number) name = base + "-" + std::to_string(number);
  return name;
}

std::vector<std::string> left_out(const Saved& saved) {
  std::vector<std::string> paths;
  std::copy_if(saved.missing.begin(), saved.missing.end(), std::back_inserter(paths), exists);
  return paths;
}

/// Whether the file that was there is gone after this step.
bool loses_file(const Step& step) {
  return step.what != Step::What::attributes && step.before.exists() && !S_ISDIR(step.before.kind);
}

/// The caller would take Code::damaged and Code::unsafe for the snapshot that it restores.
Error not_kept(Error error) {
  const bool is_of_archive =
      error.code == Code::damaged || (error.code == Code::unsafe && error.path.compare(0, 1, "/") != 0);
  if (is_of_archive) error.code = Code::failed;
  error.text = "the present configuration cannot be kept as a snapshot: " + error.text;
  // Of the files, that is.
  error.aftermath = Aftermath::untouched;
  return error;
}

}  // namespace

Result<Kept> keep_configuration(const Snapshot& loading, const Deadline& deadline,
                                std::vector<std::string>& warnings) {
  const Result<Snapshots> rows = newest_rows("*", deadline);
  if (!rows) return not_kept(rows.error());
  Result<std::string> equal = find_equal(*rows, loading, deadline);
  if (!equal) return not_kept(equal.error());
  if (!equal->empty()) return Kept{std::move(*equal), {}, {}};
  SaveOptions options;
  const std::string comment = "before '" + printable(loading.config.name) + "' was loaded";
  if (check_comment(comment).code == Code::ok) options.comment = comment;
  const std::string name = free_name(*rows);
  Result<Saved> saved = save_under_lock({name}, options, deadline);
  if (!saved && saved.error().code == Code::incomplete) return Kept();
  if (!saved) return not_kept(saved.error());
  audit_save({name}, saved);
  std::move(saved->warnings.begin(), saved->warnings.end(), std::back_inserter(warnings));
  Kept kept{name, left_out(*saved), saved->snapshot};
  for (const std::string& path : kept.missing) {
    warnings.push_back(printable(path) + ": the file is not in '" + name + "'");
  }
  return kept;
}

Error check_kept(const Kept& kept, const DetailedPlan& plan) {
  const std::set<std::string> missing(kept.missing.begin(), kept.missing.end());
  for (const PlannedStep& planned : plan.steps) {
    const Step& step = planned.step;
    const std::string path = plan.directories[step.root] + step.path;
    const bool is_kept = !kept.name.empty() && missing.count(path) == 0;
    if (is_kept || !loses_file(step)) continue;
    return {Code::incomplete, 0, printable(path),
            "a snapshot of the present configuration cannot hold this file, and the restore would delete "
            "it"};
  }
  return {};
}

void take_back_kept(const Kept& kept, const Deadline& deadline) {
  if (!kept.made) return;
  const std::set<std::string> missing(kept.missing.begin(), kept.missing.end());
  Result<std::optional<Notes>> notes = Notes::open(deadline.left());
  if (!notes || !*notes || !Comparing(std::move(**notes)).has_live_files(*kept.made, missing)) return;
  if (remove_under_lock(*kept.made, deadline).code != Code::ok) return;
  audit("prune", *kept.made, "ok", {{"reason", "the restore failed"}});
}

void remove_old_kept(const Snapshot& loading, const std::string& kept_name, const Deadline& deadline,
                     std::vector<std::string>& warnings) {
  const Result<Snapshots> rows = newest_rows(kPrefix + std::string("*"), deadline);
  if (!rows) {
    warnings.push_back("old snapshots were not removed: " + sentence(rows.error()));
    return;
  }
  // The one of this restore counts, and stays even if the clock was put back.
  std::size_t kept = is_dated_name(kPrefix, kept_name) ? 1 : 0;
  for (const Snapshot& row : *rows) {
    const bool counts = is_dated_name(kPrefix, row.config.name) && !row.pinned && row.id != loading.id &&
                        row.config.name != kept_name;
    if (!counts || ++kept <= kMostKept) continue;
    const Error error = remove_under_lock(row, deadline);
    if (error.code == Code::ok) {
      audit("prune", row, "ok", {{"reason", "not among the newest " + std::to_string(kMostKept)}});
    }
    const bool is_settled = error.code == Code::ok || error.code == Code::pinned;
    if (is_settled || error.code == Code::not_found) continue;
    warnings.push_back("'" + row.config.name + "' was not removed: " + sentence(error));
  }
}

}  // namespace ConfSave::snapshots
