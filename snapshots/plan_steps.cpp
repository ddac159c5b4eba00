// The steps of a plan, in the order of execution.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "snapshots/beneath.h"
#include "snapshots/database_logs.h"
#include "snapshots/differences.h"
#include "snapshots/digest.h"
#include "snapshots/plan.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

std::uint32_t kind_bits(Kind kind) {
  if (kind == Kind::directory) return S_IFDIR;
  return kind == Kind::symlink ? S_IFLNK : S_IFREG;
}

Identity identity_of(const LiveMember& live) {
  return {live.stamp.inode, live.stamp.size, live.stamp.modified, kind_bits(live.member.kind)};
}

Attributes attributes_of(const Member& member) { return {member.mode, member.uid, member.gid}; }

PlannedStep step_for(const DetailedPlan& plan, Step::What what, const std::string& path) {
  PlannedStep planned;
  planned.step.what = what;
  // The longest directory: one of them may be in the other.
  std::size_t longest = 0;
  for (std::size_t root = 0; root < plan.directories.size(); ++root) {
    const std::string& directory = plan.directories[root];
    const bool is_in = begins_with(path, directory);
    if (!is_in || directory.size() < longest) continue;
    longest = directory.size();
    planned.step.root = root;
  }
  planned.step.path = path.substr(longest);
  const auto live = plan.live.find(path);
  if (live != plan.live.end()) {
    planned.step.before = identity_of(live->second);
    planned.step.old = attributes_of(live->second.member);
    planned.stamp = live->second.stamp;
  }
  return planned;
}

PlannedStep attributes_step(const DetailedPlan& plan, const std::string& path, const Wanted& wanted,
                            Action action) {
  PlannedStep planned = step_for(plan, Step::What::attributes, path);
  Step& step = planned.step;
  planned.wanted = &wanted;
  step.fresh = attributes_of(wanted.member);
  if (action == Action::attributes) {
    step.after = step.before;
    return planned;
  }
  step.old = {S_IRWXU, geteuid(), getegid()};
  if (wanted.entry != -1) step.time = wanted.member.time;
  return planned;
}

void replace(DetailedPlan& plan, const std::string& path, const Wanted& wanted) {
  PlannedChange change;
  change.difference.path = path;
  change.difference.content = true;
  change.difference.secret = wanted.member.secret;
  plan.shown.changes.push_back(change);
}

/// Replaces an unchanged name, too, if other names have to be linked to its file and its inode has names
/// that change: the link would alter what the exchange compares.
void replace_shared_inodes(DetailedPlan& plan) {
  std::set<std::string> changed;
  std::set<Inode> going;
  std::set<std::pair<Base, int64>> files;
  for (const PlannedChange& change : plan.shown.changes) {
    const std::string& path = change.difference.path;
    changed.insert(path);
    const auto live = plan.live.find(path);
    if (live != plan.live.end()) going.insert(inode_of(live->second.stamp));
    if (change.action == Action::remove) continue;
    const Wanted& wanted = plan.wanted.at(path);
    if (wanted.member.kind == Kind::file) files.emplace(wanted.base, wanted.entry);
  }
  for (const auto& [path, wanted] : plan.wanted) {
    const bool stays = wanted.member.kind == Kind::file && changed.count(path) == 0;
    if (!stays || files.count({wanted.base, wanted.entry}) == 0) continue;
    const auto live = plan.live.find(path);
    if (live == plan.live.end() || going.count(inode_of(live->second.stamp)) == 0) continue;
    replace(plan, path, wanted);
  }
}

/// Replaces an unchanged log of a database that changes: each has its own.
void replace_logs(DetailedPlan& plan) {
  const std::string& directory = plan.directories.front();
  std::set<std::string> changed;
  for (const PlannedChange& change : plan.shown.changes) changed.insert(change.difference.path);
  for (const std::string& path : changed) {
    if (!begins_with(path, directory)) continue;
    for (const std::string& log : logs_of(path.substr(directory.size()))) {
      const auto wanted = plan.wanted.find(directory + log);
      if (wanted == plan.wanted.end() || changed.count(wanted->first) != 0) continue;
      replace(plan, wanted->first, wanted->second);
    }
  }
}

/// Every change of a file changes its stamp.
Digest digest_of_stamps(const std::vector<PlannedStep>& steps) {
  Sha256 sha256;
  for (const PlannedStep& planned : steps) {
    const Stamp stamp = planned.stamp.value_or(Stamp());
    for (const int64 number : {static_cast<int64>(stamp.device), static_cast<int64>(stamp.inode),
                               stamp.size, stamp.modified, stamp.changed}) {
      sha256.add(&number, sizeof number);
    }
  }
  return sha256.finish();
}

LiveMember live_log(const std::string& path, const struct stat& status) {
  LiveMember log;
  log.member.path = path;
  log.member.mode = status.st_mode & 07777U;
  log.member.uid = status.st_uid;
  log.member.gid = status.st_gid;
  log.member.size = status.st_size;
  log.member.time = status.st_mtim.tv_sec;
  log.stamp = stamp_of(status);
  return log;
}

}  // namespace

std::optional<Difference> difference_for_restore(const Member& live, const Member& wanted,
                                                 bool owners_count) {
  if (owners_count) return difference_between(live, wanted);
  Member comparable = wanted;
  comparable.uid = live.uid;
  comparable.gid = live.gid;
  const std::uint32_t group = may_give_to(wanted.gid) ? wanted.gid : live.gid;
  const bool is_limited = wanted.kind == Kind::file && live.mode == mode_for(wanted, live.uid, group);
  if (is_limited) comparable.mode = live.mode;
  return difference_between(live, comparable);
}

Error socket_in_the_way(const std::string& path) {
  return {Code::unsafe, 0, printable(path),
          "a socket is in the place of a file of the snapshot; delete it first"};
}

Result<std::map<std::string, LiveMember>> find_logs(const std::string& directory,
                                                    const std::map<std::string, PlannedChange>& changes) {
  std::map<std::string, LiveMember> logs;
  for (const auto& [file, change] : changes) {
    if (!begins_with(file, directory)) continue;
    for (const std::string& log : logs_of(file.substr(directory.size()))) {
      Result<Beneath> beneath = Beneath::open(directory);
      if (!beneath) return beneath.error();
      const Result<std::optional<struct stat>> found = beneath->look(log);
      if (!found) return found.error();
      if (!*found || !S_ISREG((*found)->st_mode)) continue;
      const Result<int> parent = beneath->directory(parent_of(log));
      if (!parent) return parent.error();
      if (!is_spent(*parent, name_of(log), log)) {
        return Error{Code::failed, 0, beneath->shown(log), loss_with(log)};
      }
      logs[directory + log] = live_log(directory + log, **found);
    }
  }
  return logs;
}

// What is in a directory goes before the directory, and comes after it; its attributes come last, because
// it must be open to its owner until then.
void write_steps(DetailedPlan& plan) {
  replace_logs(plan);
  replace_shared_inodes(plan);
  std::sort(
      plan.shown.changes.begin(), plan.shown.changes.end(),
      [](const PlannedChange& a, const PlannedChange& b) { return a.difference.path < b.difference.path; });
  std::vector<PlannedStep> attributes;
  for (auto change = plan.shown.changes.rbegin(); change != plan.shown.changes.rend(); ++change) {
    const std::string& path = change->difference.path;
    if (change->action == Action::remove) {
      plan.steps.push_back(step_for(plan, Step::What::remove, path));
      continue;
    }
    const Wanted& wanted = plan.wanted.at(path);
    if (wanted.member.kind == Kind::directory) {
      attributes.push_back(attributes_step(plan, path, wanted, change->action));
    }
  }
  for (const PlannedChange& change : plan.shown.changes) {
    if (change.action == Action::remove) continue;
    const std::string& path = change.difference.path;
    const Wanted& wanted = plan.wanted.at(path);
    if (wanted.member.kind == Kind::directory && change.action == Action::attributes) continue;
    PlannedStep put = step_for(plan, Step::What::put, path);
    put.wanted = &wanted;
    plan.steps.push_back(std::move(put));
  }
  std::move(attributes.begin(), attributes.end(), std::back_inserter(plan.steps));
  plan.shown.present = digest_of_stamps(plan.steps);
}

}  // namespace ConfSave::snapshots
