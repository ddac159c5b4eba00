#include "snapshots/exchange.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>

#include "snapshots/extended_attributes.h"

namespace ConfSave::snapshots {
namespace {

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
/// With more directories than this, one sync of the file system is faster.
constexpr std::size_t kSyncsOneByOne = 16;

/// No value with errno if the directory cannot be read.
std::optional<bool> is_empty(int parent, const std::string& name) {
  const Directory directory = directory_of(Descriptor(openat(parent, name.c_str(), kDirectory)));
  if (directory == nullptr) return {};
  errno = 0;
  while (const dirent* entry = readdir(directory.get())) {
    const std::string child = entry->d_name;
    if (child != "." && child != "..") return false;
  }
  return errno == 0 ? std::optional(true) : std::nullopt;
}

/// Whether the file system, or the kernel, does not have the flag of the last renameat2.
bool lacks_flag() { return errno == EINVAL || errno == ENOSYS || errno == ENOTSUP; }

int exchange(int a, const std::string& a_name, int b, const std::string& b_name) {
  return renameat2(a, a_name.c_str(), b, b_name.c_str(), RENAME_EXCHANGE);
}

}  // namespace

int move(int from, const std::string& old_name, int to, const std::string& new_name) {
  if (renameat2(from, old_name.c_str(), to, new_name.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (!lacks_flag()) return -1;
  struct stat status = {};
  if (fstatat(to, new_name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = EEXIST;
    return -1;
  }
  return renameat(from, old_name.c_str(), to, new_name.c_str());
}

Identity look(int directory, const std::string& name) {
  struct stat status = {};
  if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return {};
  return identity_of(status);
}

Exchange::Slot Exchange::slot_of(std::size_t number) const {
  const std::string name = std::to_string(number);
  return {sites_[steps_[number].root].staging.get(), name, name + ".old", name + ".new"};
}

void Exchange::touch(const Step& step) {
  touched_.resize(sites_.size());
  const bool is_inside = step.what == Step::What::attributes;
  touched_[step.root].insert(is_inside ? step.path : parent_of(step.path));
}

Error Exchange::changed(const Step& step) const {
  return {Code::changed_meanwhile, 0, sites_[step.root].beneath.shown(step.path),
          "the file changed while the restore was prepared"};
}

Error Exchange::foreign_file(const Step& step, const std::string& slot) const {
  const Beneath& beneath = sites_[step.root].beneath;
  const std::string before =
      slot.empty() ? ""
                   : "; the one of before is '" + beneath.shown(sites_[step.root].name + "/" + slot) + "'";
  return {Code::needs_attention, 0, beneath.shown(step.path),
          "somebody else has put this file here" + before +
              ". Move this one away, then run 'confsave recover'"};
}

/// Moving a file sets the time of its inode: mode and owner are compared by themselves.
Error Exchange::compare_with_before(const Slot& slot, const std::string& name, const Step& step) const {
  struct stat now = {};
  const Beneath& beneath = sites_[step.root].beneath;
  if (fstatat(slot.staging, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0) {
    return beneath.failure(step.path, errno);
  }
  if (!is_unchanged(identity_of(now), step.before) || !has_attributes(now, step.old)) return changed(step);
  if (!S_ISDIR(now.st_mode)) return {};
  const std::optional<bool> found = is_empty(slot.staging, name);
  if (!found) return beneath.failure(step.path, errno);
  return *found ? Error{} : changed(step);
}

// ---------------------------------------------------------------------------------------------------
// Forward

Error Exchange::apply(std::size_t number) {
  const Step& step = steps_[number];
  touch(step);
  if (step.what == Step::What::attributes) return apply_attributes(step);
  const Result<int> parent = sites_[step.root].beneath.directory(parent_of(step.path));
  if (!parent) return parent.error();
  const std::string name = name_of(step.path);
  return step.what == Step::What::put ? put(number, *parent, name) : take_away(number, *parent, name);
}

Error Exchange::put(std::size_t number, int parent, const std::string& name) {
  const Step& step = steps_[number];
  const Slot slot = slot_of(number);
  if (!step.before.exists()) {
    if (move(slot.staging, slot.name, parent, name) == 0) return {};
    return errno == EEXIST ? changed(step) : sites_[step.root].beneath.failure(step.path, errno);
  }
  if (exchange(slot.staging, slot.name, parent, name) == 0) {
    Error error = compare_with_before(slot, slot.name, step);
    if (error.code == Code::ok || exchange(slot.staging, slot.name, parent, name) == 0) return error;
    return sites_[step.root].beneath.failure(step.path, errno);
  }
  if (errno == ENOENT) return changed(step);
  if (!lacks_flag()) return sites_[step.root].beneath.failure(step.path, errno);
  return put_without_exchange(step, slot, parent, name);
}

/// The old file gets a second name, and the new one replaces it. A directory cannot have two names: for a
/// moment it is missing.
Error Exchange::put_without_exchange(const Step& step, const Slot& slot, int parent,
                                     const std::string& name) {
  const Beneath& beneath = sites_[step.root].beneath;
  const bool is_linked = !S_ISDIR(step.before.kind) && !S_ISDIR(step.after.kind) &&
                         linkat(parent, name.c_str(), slot.staging, slot.old_name.c_str(), 0) == 0;
  if (!is_linked && move(parent, name, slot.staging, slot.old_name) != 0) {
    return errno == ENOENT ? changed(step) : beneath.failure(step.path, errno);
  }
  if (Error error = compare_with_before(slot, slot.old_name, step); error.code != Code::ok) {
    const int undone = is_linked ? unlinkat(slot.staging, slot.old_name.c_str(), 0)
                                 : move(slot.staging, slot.old_name, parent, name);
    return undone == 0 ? error : beneath.failure(step.path, errno);
  }
  if (renameat(slot.staging, slot.name.c_str(), parent, name.c_str()) == 0) return {};
  return beneath.failure(step.path, errno);
}

Error Exchange::take_away(std::size_t number, int parent, const std::string& name) {
  const Step& step = steps_[number];
  const Slot slot = slot_of(number);
  if (move(parent, name, slot.staging, slot.name) != 0) {
    return errno == ENOENT ? changed(step) : sites_[step.root].beneath.failure(step.path, errno);
  }
  Error error = compare_with_before(slot, slot.name, step);
  if (error.code == Code::ok || move(slot.staging, slot.name, parent, name) == 0) return error;
  return sites_[step.root].beneath.failure(step.path, errno);
}

// ---------------------------------------------------------------------------------------------------
// Back

Error Exchange::undo(std::size_t number, Foreign foreign) {
  const Step& step = steps_[number];
  touch(step);
  return step.what == Step::What::attributes ? undo_attributes(step, foreign) : undo_move(number, foreign);
}

Error Exchange::undo_creation(const Step& step, const Slot& slot, const Identity& live, Foreign foreign) {
  if (!is_same_file(live, step.after) && foreign == Foreign::leave) return foreign_file(step, "");
  Beneath& beneath = sites_[step.root].beneath;
  const Result<int> parent = beneath.directory(parent_of(step.path));
  if (!parent) return parent.error();
  const bool is_empty_or_file = !S_ISDIR(live.kind) || is_empty(*parent, name_of(step.path)).value_or(true);
  if (!is_empty_or_file) return keep_directory(step, live);
  if (Error error = set_logs_aside(step, slot); error.code != Code::ok) return error;
  const bool done = move(*parent, name_of(step.path), slot.staging, slot.name) == 0;
  return done ? Error{} : beneath.failure(step.path, errno);
}

/// Files that are not of the restore stay where their owner has put them, and can be reached there.
Error Exchange::keep_directory(const Step& step, const Identity& live) {
  kept_.push_back(sites_[step.root].beneath.shown(step.path) +
                  ": this directory, which was not there before, stays: there are other files in it");
  for (const Step& other : steps_) {
    const bool is_it = other.what == Step::What::attributes && other.root == step.root &&
                       other.path == step.path && is_same_file(other.after, live);
    if (is_it) return set_attributes(other, other.fresh, limited_by_mask(other.old_access), kNoTime);
  }
  return {};
}

Error Exchange::undo_move(std::size_t number, Foreign foreign) {
  const Step& step = steps_[number];
  const Slot slot = slot_of(number);
  const Result<std::optional<struct stat>> found = sites_[step.root].beneath.look(step.path);
  if (!found) return found.error();
  const Identity live = *found ? identity_of(**found) : Identity();
  const std::array<std::string, 3> names = {slot.name, slot.old_name, slot.aside};
  std::array<Identity, 3> there;
  for (std::size_t i = 0; i < names.size(); ++i) {
    there[i] = look(slot.staging, names[i]);
    // It may be the file of before.
    if (there[i].exists() || errno == ENOENT) continue;
    return sites_[step.root].beneath.failure(sites_[step.root].name + "/" + names[i], errno);
  }
  const bool is_staged = is_same_file(there[0], step.after) || is_same_file(there[2], step.after);
  if (!step.before.exists()) {
    return !live.exists() || is_staged ? Error{} : undo_creation(step, slot, live, foreign);
  }
  if (is_same_file(live, step.before)) return {};
  for (const std::size_t from : {0U, 1U}) {
    if (!is_same_file(there[from], step.before)) continue;
    const bool is_foreign = live.exists() && !is_same_file(live, step.after);
    if (is_foreign && foreign == Foreign::leave) return foreign_file(step, names[from]);
    return put_back(step, slot, names[from], live.exists());
  }
  // Somebody had replaced the file of before, and the exchange was about to put that one back.
  const bool is_ours = !live.exists() || is_same_file(live, step.after);
  if (there[0].exists() && !is_staged && is_ours) return put_back(step, slot, slot.name, live.exists());
  // The step was not done, and somebody has replaced or deleted the file of before.
  if (is_staged || step.what == Step::What::remove) return {};
  return foreign_file(step, there[0].exists() ? slot.name : "");
}

Error Exchange::put_back(const Step& step, const Slot& slot, const std::string& from, bool is_occupied) {
  Beneath& beneath = sites_[step.root].beneath;
  const Result<int> parent = beneath.directory(parent_of(step.path));
  if (!parent) {
    Error error = parent.error();
    if (error.number == ENOENT) error.text += "; make this directory, then run 'confsave recover'";
    if (error.number == ENOTDIR) error.text += "; put a directory here, then run 'confsave recover'";
    return error;
  }
  if (Error error = set_logs_aside(step, slot); error.code != Code::ok) return error;
  const std::string name = name_of(step.path);
  if (!is_occupied) {
    return move(slot.staging, from, *parent, name) == 0 ? Error{} : beneath.failure(step.path, errno);
  }
  if (exchange(slot.staging, from, *parent, name) == 0) return {};
  if (!lacks_flag()) return beneath.failure(step.path, errno);
  // What is there keeps a name until it is known to be ours.
  // No directory can replace a file.
  const bool is_linked =
      !S_ISDIR(step.before.kind) &&
      (linkat(*parent, name.c_str(), slot.staging, slot.aside.c_str(), 0) == 0 ||
       (errno == EEXIST && is_same_file(look(slot.staging, slot.aside), look(*parent, name))));
  if (!is_linked && move(*parent, name, slot.staging, slot.aside) != 0) {
    return beneath.failure(step.path, errno);
  }
  if (renameat(slot.staging, from.c_str(), *parent, name.c_str()) == 0) return {};
  return beneath.failure(step.path, errno);
}

// ---------------------------------------------------------------------------------------------------
// Afterwards

/// Whether a step has moved this directory away. The step has checked that it was empty.
bool Exchange::is_moved_away(std::size_t root, const std::string& directory) const {
  return std::any_of(steps_.begin(), steps_.end(), [&](const Step& step) {
    return step.root == root && step.path == directory && S_ISDIR(step.before.kind) &&
           step.what != Step::What::attributes;
  });
}

Error Exchange::check_directories() {
  touched_.resize(sites_.size());
  for (std::size_t number = 0; number < touched_.size(); ++number) {
    std::set<std::string> directories = touched_[number];
    directories.insert("");
    for (const std::string& directory : directories) {
      const Beneath& beneath = sites_[number].beneath;
      const Result<bool> is_in_place = beneath.is_in_place(directory);
      if (!is_in_place) return is_in_place.error();
      if (*is_in_place || is_moved_away(number, directory)) continue;
      return {Code::changed_meanwhile, 0, beneath.shown(directory),
              "the directory was moved away while files in it were restored"};
    }
  }
  return {};
}

Error Exchange::apply_all() {
  for (std::size_t number = 0; number < steps_.size(); ++number) {
    if (Error error = apply(number); error.code != Code::ok) return error;
  }
  Error error = check_directories();
  return error.code == Code::ok ? sync() : error;
}

Error Exchange::sync() {
  for (std::size_t root = 0; root < touched_.size(); ++root) {
    if (touched_[root].empty()) continue;
    Site& site = sites_[root];
    if (touched_[root].size() > kSyncsOneByOne) {
      if (syncfs(site.beneath.root()) != 0) return site.beneath.failure("", errno);
      continue;
    }
    for (const std::string& path : touched_[root]) {
      const Result<int> directory = site.beneath.directory(path);
      // It is gone with a step that was undone, or another kind of file is back in its place.
      if (!directory && (directory.error().number == ENOENT || directory.error().number == ENOTDIR))
        continue;
      if (!directory) return directory.error();
      if (fsync(*directory) != 0) return site.beneath.failure(path, errno);
    }
    if (site.staging && fsync(site.staging.get()) != 0) return site.beneath.failure(site.name, errno);
  }
  return {};
}

Result<bool> Exchange::is_in_staging(const Step& step, const std::string& name, const Identity& file) {
  Site& site = sites_[step.root];
  const Result<std::optional<struct stat>> found = site.beneath.look(site.name + "/" + name);
  if (!found) return found.error();
  return *found && is_same_file(identity_of(**found), file);
}

/// A staged file that is back in its slot shows it. The files that were removed show nothing: some may be
/// deleted already, and one may have come back by hand, with the inode that its deletion had freed.
Result<bool> Exchange::has_undone_step() {
  for (std::size_t number = 0; number < steps_.size(); ++number) {
    const Step& step = steps_[number];
    // Another directory shows nothing of what became of this one.
    if (step.what != Step::What::put || sites_[step.root].name.empty()) continue;
    const Slot slot = slot_of(number);
    for (const std::string& name : {slot.name, slot.aside}) {
      Result<bool> is_staged = is_in_staging(step, name, step.after);
      if (!is_staged || *is_staged) return is_staged;
    }
  }
  return false;
}

}  // namespace ConfSave::snapshots
