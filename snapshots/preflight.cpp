#include "snapshots/preflight.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <random>
#include <tuple>

#include "snapshots/access.h"
#include "snapshots/database_logs.h"

namespace ConfSave::snapshots {
namespace {

constexpr std::uint64_t kBlock = 4096;

Error changed_meanwhile(const std::string& path) {
  return {Code::changed_meanwhile, 0, path, "the file changed while the restore was prepared"};
}

std::string new_name() {
  constexpr int kDigits = 16;
  std::random_device source;
  std::string name = ".confsave-restore-";
  for (int digit = 0; digit < kDigits; ++digit) name += "0123456789abcdef"[source() % kDigits];
  return name;
}

/// Neither root nor the owner can rename such a file, or one in such a directory.
Error check_attributes(const struct statx& file, const std::string& path) {
  if ((file.stx_attributes & STATX_ATTR_IMMUTABLE) != 0) {
    return {Code::failed, 0, path, "this is immutable; 'chattr -i' makes it changeable"};
  }
  if ((file.stx_attributes & STATX_ATTR_APPEND) != 0) {
    return {Code::failed, 0, path, "this can only be appended to; 'chattr -a' makes it changeable"};
  }
  return {};
}

/// A mount of the same file system has the same device, and stands in the way of a rename all the same. An
/// empty `name` is the directory itself.
Error check_place(const Beneath& beneath, int directory, const std::string& name, const std::string& path) {
  struct statx here = {};
  struct statx root = {};
  const unsigned wanted = STATX_BASIC_STATS | STATX_MNT_ID;
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (name.empty() ? AT_EMPTY_PATH : 0);
  if (statx(directory, name.c_str(), flags, wanted, &here) != 0) {
    // Old kernels do not have the call, and old container runtimes refuse it.
    const bool is_unknown = errno == ENOENT || errno == ENOSYS || errno == EPERM;
    return is_unknown ? Error{} : beneath.failure(path, errno);
  }
  if (statx(beneath.root(), "", AT_EMPTY_PATH, wanted, &root) != 0) return beneath.failure("", errno);
  const bool is_known = (here.stx_mask & root.stx_mask & STATX_MNT_ID) != 0;
  const bool same_device =
      here.stx_dev_major == root.stx_dev_major && here.stx_dev_minor == root.stx_dev_minor;
  const bool same_mount = !is_known || here.stx_mnt_id == root.stx_mnt_id;
  if (same_mount && same_device) return check_attributes(here, beneath.shown(path));
  if (is_known && same_mount && !S_ISDIR(here.stx_mode)) return no_lasting_inode(beneath.shown(path));
  return {Code::unsafe, EXDEV, beneath.shown(path), "another file system is mounted here"};
}

/// Nothing can be renamed over a mount, and the attributes of one cannot be taken back while it is not
/// mounted.
Error check_parent(Beneath& beneath, const std::string& path) {
  const std::string parent = parent_of(path);
  const Result<int> directory = beneath.directory(parent);
  // The restore makes it.
  if (!directory && (directory.error().number == ENOENT || directory.error().number == ENOTDIR)) return {};
  if (!directory) return directory.error();
  Error error = check_place(beneath, *directory, "", parent);
  if (error.code == Code::ok) error = check_place(beneath, *directory, name_of(path), path);
  if (error.code != Code::ok) return error;
  const bool is_open = may_access(".", W_OK | X_OK, *directory);
  return is_open ? Error{} : beneath.failure(parent, errno);
}

/// Some file systems do not say how much room they have.
Error check_room(const Beneath& beneath, std::uint64_t needed) {
  struct statvfs disk = {};
  if (fstatvfs(beneath.root(), &disk) != 0) return beneath.failure("", errno);
  const std::uint64_t free = (geteuid() == 0 ? disk.f_bfree : disk.f_bavail) * disk.f_frsize;
  if (disk.f_blocks == 0 || free >= needed) return {};
  return {
      Code::no_space, ENOSPC, beneath.shown(""),
      "the new files need " + std::to_string(needed) + " bytes, and " + std::to_string(free) + " are free"};
}

/// A log that has come since belongs to a transaction on the database that goes.
Error check_logs(const DetailedPlan& plan, std::vector<Site>& sites) {
  for (const PlannedStep& step : plan.steps) {
    Beneath& beneath = sites[step.step.root].beneath;
    for (const std::string& log : logs_of(step.step.path)) {
      const Result<std::optional<struct stat>> found = beneath.look(log);
      if (!found) return found.error();
      const bool is_new =
          *found && S_ISREG((*found)->st_mode) && plan.live.count(beneath.path() + log) == 0;
      if (is_new) return changed_meanwhile(beneath.shown(log));
    }
  }
  return {};
}

}  // namespace

Result<Record> begin_record(DetailedPlan& plan) {
  Record record;
  record.snapshot = plan.shown.snapshot;
  std::vector<std::size_t> numbers(plan.directories.size());
  for (std::size_t root = 0; root < plan.directories.size(); ++root) {
    const bool is_used =
        std::any_of(plan.steps.begin(), plan.steps.end(),
                    [root](const PlannedStep& planned) { return planned.step.root == root; });
    if (!is_used) continue;
    const Result<Beneath> beneath = Beneath::open(plan.directories[root]);
    if (!beneath) return beneath.error();
    numbers[root] = record.roots.size();
    record.roots.push_back({plan.directories[root], beneath->status().st_ino, new_name()});
  }
  for (PlannedStep& planned : plan.steps) planned.step.root = numbers[planned.step.root];
  return record;
}

Error check_sites(std::vector<Site>& sites, const DetailedPlan& plan) {
  std::map<dev_t, std::uint64_t> needed;
  for (const PlannedStep& planned : plan.steps) {
    Beneath& beneath = sites[planned.step.root].beneath;
    Error error = check_parent(beneath, planned.step.path);
    if (error.code != Code::ok) return error;
    if (planned.step.what != Step::What::put) continue;
    const auto size = static_cast<std::uint64_t>(planned.wanted->member.size);
    needed[beneath.status().st_dev] += (size / kBlock + 2) * kBlock;
  }
  for (const Site& site : sites) {
    Error error = check_room(site.beneath, needed[site.beneath.status().st_dev]);
    if (error.code != Code::ok) return error;
  }
  return {};
}

Error check_way_back(std::vector<Site>& sites, const std::vector<Step>& steps) {
  for (const Step& step : steps) {
    Site& site = sites[step.root];
    const Result<std::optional<struct stat>> now = site.beneath.look(step.path);
    const bool is_back = now && *now && is_same_file(identity_of(**now), step.before);
    if (is_back && step.what != Step::What::attributes) continue;
    const Result<int> parent = site.beneath.directory(parent_of(step.path));
    // The undo names it, unless it finds the file of before.
    if (!parent) continue;
    if (!may_access(".", W_OK, *parent) && errno == EROFS) return site.beneath.failure(step.path, EROFS);
    const std::string above = parent_of(step.path);
    std::vector<std::tuple<int, std::string, std::string>> files = {
        {site.staging.get(), "", site.name},
        {*parent, "", above},
        {*parent, name_of(step.path), step.path}};
    for (const std::string& log : logs_of(step.path)) files.emplace_back(*parent, name_of(log), log);
    for (const auto& [directory, name, path] : files) {
      struct statx file = {};
      const int flags = AT_SYMLINK_NOFOLLOW | (name.empty() ? AT_EMPTY_PATH : 0);
      if (statx(directory, name.c_str(), flags, STATX_BASIC_STATS, &file) != 0) continue;
      Error error = check_attributes(file, site.beneath.shown(path));
      if (error.code != Code::ok) return error;
    }
  }
  return {};
}

Error check_live_files(const DetailedPlan& plan, std::vector<Site>& sites) {
  if (Error error = check_logs(plan, sites); error.code != Code::ok) return error;
  for (const PlannedStep& planned : plan.steps) {
    Site& site = sites[planned.step.root];
    const Result<std::optional<struct stat>> now = site.beneath.look(planned.step.path);
    if (!now) return now.error();
    const bool is_same_file = planned.stamp ? *now && is_same(stamp_of(**now), *planned.stamp) : !*now;
    if (is_same_file || (planned.step.what == Step::What::attributes && !planned.stamp)) continue;
    if (*now && S_ISSOCK((*now)->st_mode)) {
      return socket_in_the_way(site.beneath.path() + planned.step.path);
    }
    return changed_meanwhile(site.beneath.shown(planned.step.path));
  }
  return {};
}

}  // namespace ConfSave::snapshots
