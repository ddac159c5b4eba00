// Deletes what a restore has left in its staging directories.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "snapshots/database_logs.h"
#include "snapshots/exchange.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// Why a directory cannot be deleted that somebody has put something into.
bool is_occupied(int number) { return number == ENOTEMPTY || number == EEXIST; }

bool is_number(const std::string& name) {
  return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

/// One wrong bit of the record must not delete what it took out of the live directories.
Error Exchange::check_undone() {
  for (std::size_t number = 0; number < steps_.size(); ++number) {
    const Step& step = steps_[number];
    const Site& site = sites_[step.root];
    const bool moved = step.what != Step::What::attributes && step.before.exists();
    if (!moved || site.name.empty()) continue;
    const Result<std::optional<struct stat>> live = sites_[step.root].beneath.look(step.path);
    if (!live) return live.error();
    if (*live && is_same_file(identity_of(**live), step.before)) continue;
    const Slot slot = slot_of(number);
    for (const std::string& name : {slot.name, slot.old_name}) {
      const Result<bool> is_there = is_in_staging(step, name, step.before);
      if (!is_there) return is_there.error();
      if (!*is_there) continue;
      return {Code::needs_attention, 0, site.beneath.shown(site.name + "/" + name),
              "the record of the restore says that this file of before is back as '" +
                  site.beneath.shown(step.path) +
                  "', and it is not. Move it there, or away, then run 'confsave recover'"};
    }
  }
  return {};
}

/// A power cut may have left staged files in a staged directory: they were moved into it, or out of it, and
/// the move of the one or the other is not durable.
void Exchange::empty_staged(std::size_t number, const std::string& name) {
  const Step& step = steps_[number];
  const Site& site = sites_[step.root];
  Result<Beneath> staging = Beneath::open(site.beneath.path() + site.name + "/");
  if (!staging) return;
  const std::string above = step.path + "/";
  for (std::size_t inner = steps_.size(); --inner > number;) {
    const Step& below = steps_[inner];
    const bool is_inside = below.root == step.root && begins_with(below.path, above);
    if (below.what != Step::What::put || !is_inside) continue;
    const std::string path = name + "/" + below.path.substr(above.size());
    const Result<std::optional<struct stat>> found = staging->look(path);
    if (!found || !*found || !is_unchanged(identity_of(**found), below.after)) continue;
    const Result<int> parent = staging->directory(parent_of(path));
    const int flags = S_ISDIR((*found)->st_mode) ? AT_REMOVEDIR : 0;
    if (parent) unlinkat(*parent, name_of(path).c_str(), flags);
  }
}

void Exchange::sweep_logs(const Step& step, const Slot& slot, std::vector<Left>& left) const {
  const Beneath& beneath = sites_[step.root].beneath;
  for (const std::string& log : logs_of(step.path)) {
    const std::string name = log_slot(slot.name, log);
    if (!look(slot.staging, name).exists()) continue;
    if (is_spent(slot.staging, name, log) && unlinkat(slot.staging, name.c_str(), 0) == 0) continue;
    left.push_back({beneath.shown(sites_[step.root].name + "/" + name), beneath.shown(log)});
  }
}

Error Exchange::sweep_slot(std::size_t number, std::vector<Left>& left) {
  const Step& step = steps_[number];
  const Slot slot = slot_of(number);
  const Beneath& beneath = sites_[step.root].beneath;
  for (const std::string& name : {slot.name, slot.old_name, slot.aside}) {
    const std::string path = sites_[step.root].name + "/" + name;
    const Identity found = look(slot.staging, name);
    if (!found.exists() && errno == ENOENT) continue;
    if (!found.exists()) return beneath.failure(path, errno);
    const bool is_known = is_unchanged(found, step.before) || is_unchanged(found, step.after);
    const int flags = S_ISDIR(found.kind) ? AT_REMOVEDIR : 0;
    if (flags != 0 && is_same_file(found, step.after)) empty_staged(number, name);
    if (is_known && unlinkat(slot.staging, name.c_str(), flags) == 0) continue;
    if (is_known && !is_occupied(errno)) return beneath.failure(path, errno);
    if (is_spent(slot.staging, name, step.path) && unlinkat(slot.staging, name.c_str(), 0) == 0) continue;
    left.push_back({beneath.shown(path), beneath.shown(step.path)});
  }
  sweep_logs(step, slot, left);
  return {};
}

/// Before the steps were written down, all that a staging directory has is staged.
Error Exchange::sweep_numbers(Site& site) {
  const Directory directory = directory_of(Descriptor(openat(site.staging.get(), ".", kDirectory)));
  if (directory == nullptr) return site.beneath.failure(site.name, errno);
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = readdir(directory.get())) {
    if (is_number(entry->d_name)) names.emplace_back(entry->d_name);
    errno = 0;
  }
  if (errno != 0) return site.beneath.failure(site.name, errno);
  for (const std::string& name : names) {
    const int flags = S_ISDIR(look(site.staging.get(), name).kind) ? AT_REMOVEDIR : 0;
    if (unlinkat(site.staging.get(), name.c_str(), flags) == 0 || is_occupied(errno)) continue;
    return site.beneath.failure(site.name + "/" + name, errno);
  }
  return {};
}

Error Exchange::sweep(std::vector<Left>& left) {
  Error first;
  const auto note = [&first](Error error) {
    if (first.code == Code::ok) first = std::move(error);
  };
  for (std::size_t number = 0; number < steps_.size(); ++number) {
    const Step& step = steps_[number];
    if (step.what != Step::What::attributes && sites_[step.root].staging) note(sweep_slot(number, left));
  }
  for (Site& site : sites_) {
    if (site.name.empty()) continue;
    // One that could be made and not opened is empty.
    if (steps_.empty() && site.staging) note(sweep_numbers(site));
    const bool is_gone =
        unlinkat(site.beneath.root(), site.name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT;
    if (is_gone) {
      site.staging = Descriptor();
      // A sweep that was killed may have deleted it, and not come to this.
      if (fsync(site.beneath.root()) != 0) note(site.beneath.failure("", errno));
    } else if (!is_occupied(errno)) {
      note(site.beneath.failure(site.name, errno));
    } else if (left.empty() && first.code == Code::ok) {
      left.push_back({site.beneath.shown(site.name), ""});
    }
  }
  return first;
}

}  // namespace ConfSave::snapshots
