#include "snapshots/manifest_check.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "snapshots/differences.h"
#include "snapshots/member_collector.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

/// More than a person reads.
constexpr std::size_t kMostProblems = 100;

std::string text_of(const Difference& difference) {
  std::string what;
  const auto add = [&what](bool differs, const char* name) {
    if (differs) what += std::string(what.empty() ? "" : ", ") + name;
  };
  add(difference.content, "content");
  add(difference.mode, "mode");
  add(difference.owner, "owner");
  add(difference.group, "group");
  add(difference.time, "time");
  return "the archive differs from what was saved: " + what;
}

}  // namespace

/// Of a digest, so that nobody makes two paths have the same one.
std::uint64_t ManifestCheck::mark_of(const std::string& path) {
  sha256_.add(path.data(), path.size());
  const Digest digest = sha256_.finish();
  std::uint64_t mark = 0;
  std::memcpy(&mark, digest.data(), sizeof mark);
  return mark;
}

Error ManifestCheck::complete_link(Member& link) {
  if (const auto wrong = wrong_.find(link.target); wrong != wrong_.end()) {
    complete(link, wrong->second.stored);
    return {};
  }
  // The file is as the manifest has it.
  const Result<std::optional<LiveMember>> file = manifest_.find(link.target);
  if (!file) return file.error();
  if (*file) complete(link, (*file)->member);
  return {};
}

void ManifestCheck::note(const std::string& path, Wrong wrong) {
  if (wrong_.size() < kMostProblems || wrong_.count(path) != 0) {
    wrong_[path] = std::move(wrong);
  } else {
    ++unnamed_;
  }
}

void ManifestCheck::add(const Member& member) {
  if (error_.code != Code::ok) return;
  seen_.push_back(mark_of(member.path));
  Member stored = member;
  if (member.kind == Kind::hardlink) error_ = complete_link(stored);
  if (error_.code != Code::ok) return;
  const Result<std::optional<LiveMember>> saved = manifest_.find(member.path);
  if (!saved) {
    error_ = saved.error();
    return;
  }
  std::string text = "the archive has it, and it was not saved";
  if (*saved) {
    const std::optional<Difference> difference = difference_between((*saved)->member, stored);
    text = difference ? text_of(*difference) : "";
  }
  if (text.empty()) {
    wrong_.erase(member.path);
  } else {
    note(member.path, {std::move(text), std::move(stored)});
  }
}

void ManifestCheck::look_for_absent() {
  if (error_.code != Code::ok) return;
  std::sort(seen_.begin(), seen_.end());
  error_ = manifest_.for_each([this](const LiveMember& saved) {
    const std::string& path = saved.member.path;
    if (std::binary_search(seen_.begin(), seen_.end(), mark_of(path))) return;
    note(path, {"it was saved, and the archives do not have it", {}});
  });
}

std::vector<std::string> ManifestCheck::problems() const {
  std::vector<std::string> texts;
  for (const auto& [path, wrong] : wrong_) texts.push_back(printable(path) + ": " + wrong.text);
  if (unnamed_ != 0) texts.push_back(std::to_string(unnamed_) + " more members differ from what was saved");
  return texts;
}

}  // namespace ConfSave::snapshots
