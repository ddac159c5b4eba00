#include "snapshots/edited.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "places.h"
#include "snapshots/arguments.h"
#include "snapshots/audit.h"
#include "snapshots/database_logs.h"
#include "snapshots/dated_name.h"
#include "snapshots/exchange.h"
#include "snapshots/notes.h"
#include "snapshots/sentence.h"
#include "snapshots/text.h"
#include "snapshots/under_lock.h"

namespace ConfSave::snapshots {
namespace {

constexpr const char* kPrefix = "reverted-";
/// So many snapshots of one second get a name.
constexpr int kMostNames = 100;
/// Whoever waits for the old files does not wait for this one for long.
constexpr std::chrono::seconds kLongestWait{2};

using Identities = std::map<std::size_t, Identity>;

/// What is there now instead of what the restore has put there, by step. Directories are emptied, not
/// edited.
Identities find_edited(const Record& record, std::vector<Site>& sites) {
  Identities edited;
  for (std::size_t number = 0; number < record.steps.size(); ++number) {
    const Step& step = record.steps[number];
    if (step.what == Step::What::attributes || S_ISDIR(step.after.kind)) continue;
    const Result<std::optional<struct stat>> found = sites[step.root].beneath.look(step.path);
    if (!found) continue;
    const Identity now = *found ? identity_of(**found) : Identity();
    const bool is_as_put = is_unchanged(now, step.after) && has_attributes(**found, step.fresh);
    if (S_ISDIR(now.kind) || is_as_put || is_same_file(now, step.before)) continue;
    const Result<int> parent = sites[step.root].beneath.directory(parent_of(step.path));
    // A journal that is kept for the next transaction holds nothing.
    if (parent && is_spent(*parent, name_of(step.path), step.path)) continue;
    if (now.exists() || step.after.exists()) edited[number] = now;
  }
  return edited;
}

/// A storage that is gone, or not mounted, is not made anew: nobody would look for the edits in it.
bool is_there(const std::string& storage) {
  struct stat status = {};
  return stat(storage.c_str(), &status) == 0 && status.st_size > 0;
}

Result<Saved> save_as_reverted(const Record& record, const Deadline& deadline) {
  if (!is_there(storage_file())) {
    return Error{Code::no_storage, ENOENT, storage_file(), std::strerror(ENOENT)};
  }
  SaveOptions options;
  options.allow_empty = true;
  const std::string comment =
      "before the restore of '" + printable(record.snapshot.config.name) + "' was taken back";
  if (check_comment(comment).code == Code::ok) options.comment = comment;
  const std::string name = dated_name(kPrefix, std::time(nullptr));
  Result<Saved> saved = save_under_lock({name}, options, deadline);
  for (int number = 1; number < kMostNames; ++number) {
    if (saved || saved.error().code != Code::taken) break;
    saved = save_under_lock({name + "-" + std::to_string(number)}, options, deadline);
  }
  if (saved) audit_save({saved->snapshot.config.name}, saved);
  return saved;
}

/// Leaves those of which `saved` provably has the content.
void leave_saved(Identities& edited, const Record& record, const Snapshot& saved,
                 const Deadline& deadline) {
  const Result<std::optional<Tree>> tree = find_tree(saved, deadline);
  for (auto entry = edited.begin(); entry != edited.end();) {
    const Step& step = record.steps[entry->first];
    const Identity& now = entry->second;
    // What is missing may only have been moved: it counts as put there if it comes back.
    bool is_saved = false;
    if (tree && *tree && now.exists()) {
      const auto& members = (*tree)->members;
      const auto member = members.find(record.roots[step.root].path + step.path);
      is_saved = member != members.end() && member->second.stamp.inode == now.inode &&
                 member->second.stamp.size == now.size && member->second.stamp.modified == now.modified;
    }
    entry = is_saved ? std::next(entry) : edited.erase(entry);
  }
}

}  // namespace

std::string keep_edited(Journal& journal, Record& record, std::vector<Site>& sites,
                        const Deadline& deadline, std::vector<std::string>& warnings) {
  Identities edited = find_edited(record, sites);
  // What goes back goes into the directories of before, which are not in their places yet.
  for (Site& site : sites) site.beneath.forget();
  if (edited.empty()) return "";
  const Deadline soon(std::min<std::chrono::milliseconds>(deadline.left(), kLongestWait));
  const Result<Saved> saved = save_as_reverted(record, soon);
  if (!saved) {
    warnings.push_back("what was edited since the restore is not kept as a snapshot: " +
                       sentence(saved.error()));
    return "";
  }
  for (const std::string& warning : saved->warnings) {
    warnings.push_back("'" + saved->snapshot.config.name + "': " + warning);
  }
  leave_saved(edited, record, saved->snapshot, soon);
  for (const auto& [number, identity] : edited) record.steps[number].after = identity;
  if (!edited.empty()) {
    const Error error = journal.replace_after(edited);
    if (error.code != Code::ok) warnings.push_back(sentence(error));
  }
  return saved->snapshot.config.name;
}

}  // namespace ConfSave::snapshots
