#include "snapshots/member_collector.h"

#include <algorithm>

#include "places.h"

namespace ConfSave::snapshots {
std::string directory_of(Base base) {
  return base == Base::failover ? kFailoverDirectory : config_directory();
}

void complete(Member& link, const Member& file) {
  link.mode = file.mode;
  link.uid = file.uid;
  link.gid = file.gid;
  link.time = file.time;
  link.size = file.size;
  link.sha256 = file.sha256;
  link.secret = link.secret || file.secret;
}

EntryHandler MemberReader::handler() {
  return {[this](const Entry& entry) { return begin(entry); },
          [this](std::string_view piece) {
            if (check_ != nullptr) check_->add(piece);
            if (check_ == nullptr || check_->needs_digest()) sha256_.add(piece.data(), piece.size());
            return Error{};
          },
          [this] { return end(); }};
}

Error MemberReader::begin(const Entry& entry) {
  if (check_ != nullptr) check_->begin(entry);
  current_ = {};
  current_.path = directory_ + entry.path;
  current_.kind = entry.kind;
  current_.mode = entry.mode;
  current_.size = entry.size;
  current_.time = entry.time;
  current_.secret = secrets_.contains(entry.path);
  if (entry.kind == Kind::symlink) {
    current_.target = entry.target;
    sha256_.add(entry.target.data(), entry.target.size());
  }
  if (entry.kind == Kind::hardlink) current_.target = directory_ + entry.target;
  return find_owner(entry);
}

Error MemberReader::find_owner(const Entry& entry) {
  current_.uid = entry.uid;
  current_.gid = entry.gid;
  if (owned_by_ == OwnedBy::whom_it_was_saved) return {};
  const Result<std::uint32_t> user = owners_.user(entry.user, entry.uid);
  if (!user) return user.error();
  const Result<std::uint32_t> group = owners_.group(entry.group, entry.gid);
  if (!group) return group.error();
  current_.uid = *user;
  current_.gid = *group;
  return {};
}

Error MemberReader::end() {
  Digest digest = sha256_.finish();
  if (check_ != nullptr && current_.kind == Kind::file) digest = check_->end(digest);
  if (current_.kind == Kind::file || current_.kind == Kind::symlink) current_.sha256 = digest;
  return take_(std::move(current_));
}

MemberCollector::MemberCollector(Base base, OwnedBy owned_by, ContentCheck* check)
    : reader_(
          base, owned_by, [this](Member member) { return add(std::move(member)); }, check) {
  if (check != nullptr) check->enter(directory_of(base));
}

Error MemberCollector::add(Member member) {
  // The reader has seen to it that the file comes before its links.
  if (member.kind == Kind::hardlink) complete(member, members_.at(member.target));
  members_[member.path] = std::move(member);
  return {};
}

}  // namespace ConfSave::snapshots
