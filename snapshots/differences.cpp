#include "snapshots/differences.h"

namespace ConfSave::snapshots {
namespace {

/// A hard link is another name of a file.
Kind kind_of(const Member& member) { return member.kind == Kind::hardlink ? Kind::file : member.kind; }

Difference whole(const Member& member, Change change) {
  Difference difference;
  difference.path = member.path;
  difference.change = change;
  difference.secret = member.secret;
  return difference;
}

/// The bits of a symbolic link mean nothing.
Difference between(const Member& older, const Member& newer) {
  Difference difference = whole(newer, Change::modified);
  const Kind kind = kind_of(newer);
  difference.secret = older.secret || newer.secret;
  difference.content = kind_of(older) != kind || older.size != newer.size || older.sha256 != newer.sha256;
  difference.mode = kind != Kind::symlink && older.mode != newer.mode;
  difference.owner = older.uid != newer.uid;
  difference.group = older.gid != newer.gid;
  difference.time = kind != Kind::directory && older.time != newer.time;
  return difference;
}

bool differs(const Difference& difference) {
  return difference.content || difference.mode || difference.owner || difference.group || difference.time;
}

const Member& member_of(const Member& member) { return member; }
const Member& member_of(const LiveMember& live) { return live.member; }

template <class Older, class Newer>
Differences merge(const std::map<std::string, Older>& older, const std::map<std::string, Newer>& newer) {
  Differences result;
  auto before = older.begin();
  auto after = newer.begin();
  while (before != older.end() || after != newer.end()) {
    if (after == newer.end() || (before != older.end() && before->first < after->first)) {
      result.push_back(whole(member_of(before++->second), Change::removed));
    } else if (before == older.end() || after->first < before->first) {
      result.push_back(whole(member_of(after++->second), Change::added));
    } else {
      const auto difference = difference_between(member_of(before++->second), member_of(after++->second));
      if (difference) result.push_back(*difference);
    }
  }
  return result;
}

}  // namespace

std::optional<Difference> difference_between(const Member& older, const Member& newer) {
  Difference difference = between(older, newer);
  return differs(difference) ? std::optional<Difference>(std::move(difference)) : std::nullopt;
}

Differences differences(const std::map<std::string, Member>& older,
                        const std::map<std::string, Member>& newer) {
  return merge(older, newer);
}

Differences differences(const std::map<std::string, Member>& older,
                        const std::map<std::string, LiveMember>& newer) {
  return merge(older, newer);
}

Differences differences(const std::map<std::string, LiveMember>& older,
                        const std::map<std::string, LiveMember>& newer) {
  return merge(older, newer);
}

}  // namespace ConfSave::snapshots
