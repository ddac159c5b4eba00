// plan: what a restore would do.

#include "snapshots/plan.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "snapshots/archive_path.h"
#include "snapshots/beneath.h"
#include "snapshots/database_logs.h"
#include "snapshots/differences.h"
#include "snapshots/member_collector.h"
#include "snapshots/notes.h"
#include "snapshots/sentence.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

/// True if one of `map` is below `path`.
template <class Value>
bool has_below(const std::map<std::string, Value>& map, const std::string& path) {
  const auto next = map.lower_bound(path + "/");
  return next != map.end() && begins_with(next->first, path + "/");
}

/// Null if none of `paths` is below `path`.
const std::string* first_below(const std::set<std::string>& paths, const std::string& path) {
  const auto next = paths.lower_bound(path + "/");
  return next != paths.end() && begins_with(*next, path + "/") ? &*next : nullptr;
}

class Planning {
 public:
  Planning(OpenRow& row, const RestoreOptions& options, const Deadline& deadline)
      : row_(row),
        options_(options),
        deadline_(deadline),
        destinations_(Destinations::of(options.target)),
        owners_count_(geteuid() == 0) {}

  Result<DetailedPlan> run(std::size_t room) {
    plan_.decoded = DecodedFiles(room);
    plan_.shown.snapshot = row_.snapshot;
    plan_.directories.push_back(destinations_.configuration);
    const bool has_failover = row_.snapshot.config.type != conf_corlu;
    if (has_failover && options_.target.empty()) plan_.directories.push_back(destinations_.failover);
    Error error = read_both();
    if (error.code == Code::ok) error = add_parents();
    if (error.code == Code::ok) error = remove_database();
    if (error.code != Code::ok) return error;
    for (const auto& [path, wanted] : plan_.wanted) compare(path, wanted);
    if (in_the_way_.code != Code::ok) return in_the_way_;
    compare_links();
    if (error = remove_logs(); error.code != Code::ok) return error;
    consider_the_rest();
    for (auto& [path, change] : changes_) plan_.shown.changes.push_back(std::move(change));
    write_steps(plan_);
    return std::move(plan_);
  }

 private:
  Error read_both() {
    Result<Parents> parents = find_parents(row_.snapshot, deadline_);
    if (!parents) no_manifest_ = parents.error();
    if (parents) parents_ = std::move(*parents);
    ContentCheck quick(ContentCheck::Digests::only_compared);
    Error error = read_both(quick);
    if (error.code != Code::ok || !needs_digests(quick)) return error;
    ContentCheck thorough(ContentCheck::Digests::computed);
    return read_both(thorough);
  }

  Error read_both(ContentCheck& check) {
    Result<std::map<std::string, Wanted>> wanted =
        read_wanted(row_, destinations_, check, plan_.decoded, progress());
    if (!wanted) return wanted.error();
    plan_.wanted = std::move(*wanted);
    Result<Tree> live = read_parts(parts(), &check);
    if (!live) return live.error();
    plan_.live = std::move(live->members);
    sockets_ = std::move(live->sockets);
    return {};
  }

  bool needs_digests(const ContentCheck& check) const {
    return std::any_of(plan_.wanted.begin(), plan_.wanted.end(), [&](const auto& wanted) {
      const auto live = plan_.live.find(wanted.first);
      return live != plan_.live.end() && check.needs_digests(wanted.second.member, live->second);
    });
  }

  PackedProgress progress() const {
    if (!options_.progress) return {};
    Progress report;
    report.total = row_.snapshot.keybase_size + row_.snapshot.etc_size;
    return [this, report](int64 packed) mutable {
      report.done += packed;
      options_.progress(report);
    };
  }

  /// The contents of the type, and what else the snapshot has.
  std::vector<TreePart> parts() {
    std::vector<TreePart> result;
    for (const Column& column : columns_of(row_.snapshot.config.type)) {
      TreePart part{column.base, destinations_.of(column.base), {}, {}, Secrets(column.base)};
      for (const ContentsEntry& entry : contents()) {
        const bool belongs = belongs_to(entry, row_.snapshot.config.type) || entry.holds == Holds::database;
        if (entry.base == column.base && belongs) part.paths.push_back(entry.path);
      }
      contents_[column.base] = part.paths;
      for (const auto& [path, wanted] : plan_.wanted) {
        if (wanted.base != column.base || is_of_contents(path, column.base)) continue;
        const bool is_directory = wanted.member.kind == Kind::directory;
        (is_directory ? part.alone : part.paths).push_back(path.substr(part.directory.size()));
      }
      result.push_back(std::move(part));
    }
    return result;
  }

  bool is_of_contents(const std::string& path, Base base) const {
    const std::string& directory = destinations_.of(base);
    if (!begins_with(path, directory)) return false;
    const auto entries = contents_.find(base);
    if (entries == contents_.end()) return false;
    const std::string relative = path.substr(directory.size());
    return std::any_of(entries->second.begin(), entries->second.end(),
                       [&relative](const std::string& entry) { return is_covered(relative, entry); });
  }

  /// Directories that members are in, and that neither the snapshot nor the disk has.
  Error add_parents() {
    std::map<std::string, Wanted> made;
    for (const std::string& directory : plan_.directories) {
      const bool is_needed = std::any_of(plan_.wanted.begin(), plan_.wanted.end(), [&](const auto& wanted) {
        return destinations_.of(wanted.second.base) == directory;
      });
      if (!is_needed) continue;
      Result<Beneath> beneath = Beneath::open(directory);
      if (!beneath) return beneath.error();
      for (const auto& [path, wanted] : plan_.wanted) {
        if (destinations_.of(wanted.base) != directory) continue;
        Error error = add_parents_of(path, wanted.base, *beneath, made);
        if (error.code != Code::ok) return error;
      }
    }
    if (!made.empty() && no_manifest_.code == Code::busy) return no_manifest_;
    if (!made.empty() && no_manifest_.code != Code::ok) {
      plan_.warnings.push_back("missing directories are for their owner only: " + sentence(no_manifest_));
    }
    plan_.wanted.merge(made);
    return {};
  }

  Error add_parents_of(const std::string& path, Base base, Beneath& beneath,
                       std::map<std::string, Wanted>& made) {
    const std::size_t prefix = beneath.path().size();
    std::string parent = parent_of(path.substr(prefix));
    for (; !parent.empty(); parent = parent_of(parent)) {
      const std::string absolute = beneath.path() + parent;
      const auto member = plan_.wanted.find(absolute);
      if (member != plan_.wanted.end() && member->second.member.kind != Kind::directory) {
        return {Code::unsafe, ENOTDIR, printable(absolute),
                "one archive has a file here, and the other one files below"};
      }
      if (member != plan_.wanted.end() || !seen_.insert(absolute).second) return {};
      const auto live = plan_.live.find(absolute);
      if (live == plan_.live.end()) {
        const Result<std::optional<struct stat>> now = beneath.look(parent);
        if (!now) return now.error();
        if (*now && S_ISDIR((*now)->st_mode)) return {};
        if (*now) return {Code::unsafe, ENOTDIR, printable(absolute), "this is not a directory"};
      } else if (live->second.member.kind == Kind::directory) {
        return {};
      }
      made[absolute] = missing_parent(absolute, base);
    }
    return {};
  }

  Wanted missing_parent(const std::string& path, Base base) const {
    Wanted wanted;
    wanted.base = base;
    wanted.member.path = path;
    wanted.member.kind = Kind::directory;
    const auto parent = parents_.find(directory_of(base) + path.substr(destinations_.of(base).size()));
    const bool is_known = parent != parents_.end();
    wanted.member.mode = is_known ? parent->second.mode : S_IRWXU;
    wanted.member.uid = is_known ? parent->second.uid : geteuid();
    wanted.member.gid = is_known ? parent->second.gid : getegid();
    return wanted;
  }

  /// None of its files stays that the snapshot does not have: they belong together.
  Error remove_database() {
    for (const std::string& file : database_files(destinations_.configuration)) {
      const auto live = plan_.live.find(file);
      if (live == plan_.live.end() || plan_.wanted.count(file) != 0) continue;
      if (live->second.member.kind == Kind::directory) {
        return {Code::unsafe, EISDIR, printable(file),
                "a directory is in the place of a file of the configuration database"};
      }
      remove(file, live->second);
    }
    return {};
  }

  /// A database that changes loses the logs of the one that was there.
  Error remove_logs() {
    Result<std::map<std::string, LiveMember>> logs = find_logs(destinations_.configuration, changes_);
    if (!logs) return logs.error();
    for (const auto& [path, log] : *logs) {
      if (plan_.wanted.count(path) == 0) remove(path, plan_.live[path] = log);
    }
    return {};
  }

  void remove(const std::string& path, const LiveMember& live) {
    removed_.insert(path);
    PlannedChange& change = changes_[path];
    change.action = Action::remove;
    change.difference.path = path;
    change.difference.change = Change::removed;
    change.difference.secret = live.member.secret;
  }

  void compare(const std::string& path, const Wanted& wanted) {
    const auto live = plan_.live.find(path);
    PlannedChange change;
    if (live == plan_.live.end()) {
      if (sockets_.count(path) != 0) in_the_way_ = socket_in_the_way(path);
      change.action = Action::create;
      change.difference.path = path;
      change.difference.change = Change::added;
      change.difference.secret = wanted.member.secret;
    } else {
      const Member& now = live->second.member;
      // A directory that the archive does not have keeps what it has.
      const bool is_both = now.kind == Kind::directory && wanted.member.kind == Kind::directory;
      if (is_both && wanted.entry == -1) return;
      const std::optional<Difference> difference =
          difference_for_restore(now, wanted.member, owners_count_);
      if (!difference) return;
      change.action = difference->content ? Action::replace : Action::attributes;
      change.difference = *difference;
      if (now.kind == Kind::directory && wanted.member.kind != Kind::directory) remove_below(path);
    }
    changes_[path] = std::move(change);
  }

  /// Names of one file have one inode, and names of different files do not.
  void compare_links() {
    std::map<std::pair<Base, int64>, Inode> inodes;
    std::map<Inode, std::pair<Base, int64>> files;
    for (const auto& [path, wanted] : plan_.wanted) {
      if (wanted.member.kind != Kind::file || changes_.count(path) != 0) continue;
      const Inode inode = inode_of(plan_.live.at(path).stamp);
      const std::pair<Base, int64> file(wanted.base, wanted.entry);
      const bool is_linked = inodes.emplace(file, inode).first->second == inode &&
                             files.emplace(inode, file).first->second == file;
      if (is_linked) continue;
      PlannedChange& change = changes_[path];
      change.difference.path = path;
      change.difference.content = true;
      change.difference.secret = wanted.member.secret;
    }
  }

  /// The destination may have such a name itself.
  bool is_kept(const std::string& path) const {
    for (const std::string& directory : plan_.directories) {
      if (begins_with(path, directory)) return is_of_packet_filter(path.substr(directory.size()));
    }
    return false;
  }

  void remove_below(const std::string& path) {
    const auto& live = plan_.live;
    if (const std::string* socket = first_below(sockets_, path)) in_the_way_ = socket_in_the_way(*socket);
    for (auto next = live.lower_bound(path + "/"); next != live.end(); ++next) {
      if (!begins_with(next->first, path + "/")) return;
      if (is_kept(next->first)) {
        in_the_way_ = {Code::unsafe, 0, printable(next->first),
                       "the directory of this file would have to go, and the file is never removed"};
      }
      remove(next->first, next->second);
    }
  }

  /// Files that the snapshot does not have; what is in a directory before the directory.
  void consider_the_rest() {
    for (auto next = plan_.live.rbegin(); next != plan_.live.rend(); ++next) {
      const auto& [path, live] = *next;
      const bool is_known = plan_.wanted.count(path) != 0 || removed_.count(path) != 0;
      const bool counts = is_of_contents(path, Base::configuration) || is_of_contents(path, Base::failover);
      if (is_known || !counts || is_kept(path)) continue;
      const bool is_directory = live.member.kind == Kind::directory;
      if (options_.exact && (!is_directory || becomes_empty(path))) {
        remove(path, live);
      } else if (!is_directory || !has_below(plan_.live, path)) {
        if (!has_below(plan_.wanted, path)) plan_.shown.extra.push_back(path);
      }
    }
    std::reverse(plan_.shown.extra.begin(), plan_.shown.extra.end());
  }

  bool becomes_empty(const std::string& path) const {
    if (has_below(plan_.wanted, path) || first_below(sockets_, path) != nullptr) return false;
    const auto& live = plan_.live;
    for (auto next = live.lower_bound(path + "/"); next != live.end(); ++next) {
      if (!begins_with(next->first, path + "/")) return true;
      if (removed_.count(next->first) == 0) return false;
    }
    return true;
  }

  OpenRow& row_;
  const RestoreOptions& options_;
  const Deadline& deadline_;
  Destinations destinations_;
  bool owners_count_;
  DetailedPlan plan_;
  std::map<Base, std::vector<std::string>> contents_;  ///< relative, by base
  Parents parents_;
  Error no_manifest_;  ///< why there may be one that cannot be read
  std::map<std::string, PlannedChange> changes_;
  std::set<std::string> removed_;
  std::set<std::string> sockets_;
  Error in_the_way_;
  std::set<std::string> seen_;  ///< directories that were considered as parents
};

}  // namespace

Result<DetailedPlan> make_plan(OpenRow& row, const RestoreOptions& options, const Deadline& deadline,
                               std::size_t room) {
  if (row.snapshot.config.vers > CURRENT_VERSION && !options.allow_newer) {
    return Error{Code::newer, 0, "",
                 "the snapshot '" + printable(row.snapshot.config.name) + "' is of a newer version"};
  }
  return Planning(row, options, deadline).run(room);
}

}  // namespace ConfSave::snapshots
