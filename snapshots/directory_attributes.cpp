// Mode, owner and access list of directories, which a restore sets when everything else is done.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "snapshots/exchange.h"
#include "snapshots/extended_attributes.h"

namespace ConfSave::snapshots {
namespace {

constexpr std::uint32_t kPermissions = 07777;

/// Whether a directory has the old or the new attributes, or, as an unfinished step leaves it, some of
/// both. The kernel may have cleared the set-id bits.
bool has_attributes_of(const struct stat& status, const Step& step) {
  const auto is_one_of = [&](const Attributes& mode, const Attributes& owner) {
    const std::uint32_t set_id = S_ISUID | S_ISGID;
    return ((status.st_mode ^ mode.mode) & kPermissions & ~set_id) == 0 && status.st_uid == owner.uid &&
           status.st_gid == owner.gid;
  };
  return is_one_of(step.old, step.old) || is_one_of(step.fresh, step.fresh) ||
         is_one_of(step.old, step.fresh) || is_one_of(step.fresh, step.old);
}

/// False for one that the restore makes.
bool was_there(const Step& directory) { return is_same_file(directory.before, directory.after); }

}  // namespace

bool has_attributes(const struct stat& status, const Attributes& attributes) {
  return (status.st_mode & kPermissions) == attributes.mode && status.st_uid == attributes.uid &&
         status.st_gid == attributes.gid;
}

Error Exchange::apply_attributes(const Step& step) {
  const Result<std::optional<struct stat>> now = sites_[step.root].beneath.look(step.path);
  if (!now) return now.error();
  if (was_there(step) && (!*now || !has_attributes(**now, step.old))) return changed(step);
  return set_attributes(step, step.fresh, limited_by_mask(step.old_access), step.time);
}

/// The mode comes last: it is the mask of the access list, and a new owner clears the set-id bits.
Error Exchange::set_attributes(const Step& step, const Attributes& attributes, const std::string& access,
                               int64 time) {
  Beneath& beneath = sites_[step.root].beneath;
  const Result<int> parent = beneath.directory(parent_of(step.path));
  if (!parent) return parent.error();
  const Descriptor directory(
      openat(*parent, name_of(step.path).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  if (!directory || fstat(directory.get(), &status) != 0) return beneath.failure(step.path, errno);
  if (!is_same_file(identity_of(status), step.after)) return changed(step);
  const bool done = (geteuid() != 0 || fchown(directory.get(), attributes.uid, attributes.gid) == 0) &&
                    set_access_list(directory.get(), access) &&
                    fchmod(directory.get(), attributes.mode) == 0;
  if (!done) return beneath.failure(step.path, errno);
  if (time == kNoTime) return {};
  const timespec times[] = {{time, 0}, {time, 0}};
  return futimens(directory.get(), times) == 0 ? Error{} : beneath.failure(step.path, errno);
}

/// Where the directory is not, or is another one, the step that put it there is undone after this one.
Error Exchange::undo_attributes(const Step& step, Foreign foreign) {
  const Result<std::optional<struct stat>> now = sites_[step.root].beneath.look(step.path);
  if (!now) return now.error();
  if (!*now || !is_same_file(identity_of(**now), step.after)) return {};
  if (was_there(step) && foreign == Foreign::leave && !has_attributes_of(**now, step)) {
    kept_.push_back(sites_[step.root].beneath.shown(step.path) +
                    ": the mode and the owner of this directory stay: somebody has changed them since");
    return {};
  }
  return set_attributes(step, step.old, step.old_access, kNoTime);
}

}  // namespace ConfSave::snapshots
