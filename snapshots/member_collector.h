#pragma once

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

/// Turns the entries of an archive into members, with digests of their content.
class MemberCollector {
 public:
  explicit MemberCollector(Base base) : directory_(directory_of(base)), secrets_(base) {}

  /// Valid as long as this object.
  EntryHandler handler();

  /// What was collected. Of entries with the same path the last one counts.
  const std::map<std::string, Member>& members() const { return members_; }
  std::map<std::string, Member> take() { return std::move(members_); }

 private:
  void begin(const Entry& entry);
  void end();

  std::string directory_;
  Secrets secrets_;
  Member current_;
  Sha256 sha256_;
  std::map<std::string, Member> members_;
};

}  // namespace ConfSave::snapshots
