#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "contents.h"
#include "snapshots/archive_reader.h"
#include "snapshots/content_check.h"
#include "snapshots/digest.h"
#include "snapshots/owners.h"
#include "snapshots/secrets.h"

namespace ConfSave::snapshots {

/// The directory, ending in "/", that the paths of `base` are relative to.
std::string directory_of(Base base);

/// Gives a hard link what it has from its file: a restore sets nothing of a link, and the archive has its
/// content with the file.
void complete(Member& link, const Member& file);

/// Whose a member is.
enum class OwnedBy {
  whom_a_restore_sets,  ///< the user of the stored name, on this machine
  whom_it_was_saved,    ///< the stored number
};

/// Turns the entries of an archive into members, with digests of their content, and calls `take` with each.
/// A hard link is not complete yet. With a `check`, compares the content as well, in the directory that the
/// check has entered.
class MemberReader {
 public:
  MemberReader(Base base, OwnedBy owned_by, std::function<Error(Member)> take,
               ContentCheck* check = nullptr)
      : directory_(directory_of(base)),
        secrets_(base),
        owned_by_(owned_by),
        take_(std::move(take)),
        check_(check) {}
  MemberReader(const MemberReader&) = delete;
  MemberReader& operator=(const MemberReader&) = delete;

  /// Valid as long as this object.
  EntryHandler handler();

 private:
  Error begin(const Entry& entry);
  Error find_owner(const Entry& entry);
  Error end();

  std::string directory_;
  Secrets secrets_;
  OwnedBy owned_by_;
  Owners owners_;
  std::function<Error(Member)> take_;
  ContentCheck* check_;
  Member current_;
  Sha256 sha256_;
};

/// Gathers the members of an archive, hard links completed.
class MemberCollector {
 public:
  /// With a `check`, compares the content with the live files of the base.
  explicit MemberCollector(Base base, OwnedBy owned_by = OwnedBy::whom_a_restore_sets,
                           ContentCheck* check = nullptr);

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
