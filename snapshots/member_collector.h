#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "contents.h"
#include "snapshots/archive_reader.h"
#include "snapshots/digest.h"

namespace ConfSave::snapshots {

/// The directory, ending in "/", that the paths of `base` are relative to.
std::string directory_of(Base base);

/// Tells which paths hold keys: those that the contents say, and everything below them.
class Secrets {
 public:
  explicit Secrets(Base base);

  bool contains(const std::string& path) const;

 private:
  std::vector<std::string> prefixes_;  ///< of names that a pattern matches
  std::vector<std::string> paths_;
};

/// Turns the entries of an archive into members, with digests of their content, and calls `take` with each.
/// A hard link has no size and no digest of its own: it has those of the member that `target` names.
class MemberReader {
 public:
  MemberReader(Base base, std::function<Error(Member)> take)
      : directory_(directory_of(base)), secrets_(base), take_(std::move(take)) {}
  MemberReader(const MemberReader&) = delete;
  MemberReader& operator=(const MemberReader&) = delete;

  /// Valid as long as this object.
  EntryHandler handler();

 private:
  void begin(const Entry& entry);
  Error end();

  std::string directory_;
  Secrets secrets_;
  std::function<Error(Member)> take_;
  Member current_;
  Sha256 sha256_;
};

/// Gathers the members of an archive; hard links have the size and digest of their files.
class MemberCollector {
 public:
  explicit MemberCollector(Base base)
      : reader_(base, [this](Member member) { return add(std::move(member)); }) {}

  /// Valid as long as this object.
  EntryHandler handler() { return reader_.handler(); }

  /// What was collected. Of entries with the same path the last one counts.
  const std::map<std::string, Member>& members() const { return members_; }
  std::map<std::string, Member> take() { return std::move(members_); }

 private:
  Error add(Member member);

  MemberReader reader_;
  std::map<std::string, Member> members_;
};

}  // namespace ConfSave::snapshots
