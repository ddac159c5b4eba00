#include "snapshots/old_attributes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "snapshots/own_descriptors.h"
#include "snapshots/staging_error.h"

namespace ConfSave::snapshots {
namespace {

Result<ExtendedAttributes> read_attributes(const PlannedStep& planned, Beneath& beneath) {
  const std::string& path = planned.step.path;
  const Result<int> parent = beneath.directory(parent_of(path));
  if (!parent) return parent.error();
  const Descriptor old(
      openat(*parent, name_of(path).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (!old || fstat(old.get(), &status) != 0) {
    return is_gone(errno) ? changed_while_staged(beneath.shown(path)) : cannot_stage(beneath, path, errno);
  }
  if (!is_same_file(identity_of(status), planned.step.before)) {
    return changed_while_staged(beneath.shown(path));
  }
  const bool has_say = geteuid() != 0 || status.st_uid == 0 || status.st_uid == planned.wanted->member.uid;
  std::optional<ExtendedAttributes> attributes = extended_attributes(old.get(), has_say);
  if (!attributes) return cannot_stage(beneath, path, errno);
  return std::move(*attributes);
}

}  // namespace

Result<ExtendedAttributes> attributes_of_old(const PlannedStep& planned, Beneath& beneath,
                                             bool may_be_locked) {
  if (!may_be_locked) return read_attributes(planned, beneath);
  // The descriptors of `beneath` are others there.
  Result<ExtendedAttributes> attributes = ExtendedAttributes();
  OwnDescriptors().run([&] {
    Result<Beneath> own = Beneath::open(beneath.path());
    attributes = own ? read_attributes(planned, *own) : own.error();
  });
  return attributes;
}

}  // namespace ConfSave::snapshots
