// compare: what differs between a snapshot and the live configuration, or another snapshot.

#include "snapshots/compare.h"

#include <algorithm>

#include "places.h"
#include "snapshots/beneath.h"
#include "snapshots/boundary.h"
#include "snapshots/differences.h"
#include "snapshots/notes.h"
#include "snapshots/row_reader.h"

namespace ConfSave::snapshots {
namespace {

bool needs_digests(const ContentCheck& check, const std::map<std::string, Member>& stored,
                   const Tree& live) {
  return std::any_of(live.members.begin(), live.members.end(), [&](const auto& found) {
    const auto archived = stored.find(found.first);
    return archived != stored.end() && check.needs_digests(archived->second, found.second);
  });
}

/// Decodes the archives, and reads each live file while its copy is decoded.
Result<Differences> compare_contents(OpenRow& row, const EachMember& each) {
  ContentCheck check(ContentCheck::Digests::only_compared);
  Result<std::map<std::string, Member>> stored = read_contents(row, &check);
  if (!stored) return stored.error();
  Result<Tree> live = read_tree(row.snapshot.config.type, {}, nullptr, &check);
  if (!live) return live.error();
  if (needs_digests(check, *stored, *live)) {
    stored = read_contents(row);
    if (stored) live = read_tree(row.snapshot.config.type);
    if (!stored) return stored.error();
    if (!live) return live.error();
  }
  for (const auto& [path, member] : *stored) each(member);
  return differences(*stored, live->members);
}

Result<std::map<std::string, Member>> read_snapshot(const Id& id, const Deadline& deadline) {
  Result<OpenRow> row = open_row(id, deadline);
  if (!row) return row.error();
  return read_contents(*row);
}

Result<Differences> compare_rows(const Id& older, const Id& newer, const ReadOptions& options) {
  const Deadline deadline(options.wait);
  const Result<std::map<std::string, Member>> before = read_snapshot(older, deadline);
  if (!before) return before.error();
  const Result<std::map<std::string, Member>> after = read_snapshot(newer, deadline);
  if (!after) return after.error();
  return differences(*before, *after);
}

Result<Differences> compare_live(const Id& older, const Deadline& deadline) {
  Result<OpenRow> row = open_row(older, deadline);
  if (!row) return row.error();
  const EachMember ignore = [](const Member&) {};
  // Every file would seem to be removed.
  const Result<Beneath> directory = Beneath::open(config_directory());
  if (!directory) return directory.error();
  // The archives say the same, and take longer.
  const Result<std::optional<Tree>> saved = find_tree(row->snapshot, deadline);
  return saved && *saved ? compare_with_live(**saved, row->snapshot.config.type, ignore)
                         : compare_contents(*row, ignore);
}

}  // namespace

Result<Differences> compare_with_live(const Tree& saved, conftype type, const EachMember& each) {
  const Result<Tree> live = read_tree_since(saved, type);
  if (!live) return live.error();
  for (const auto& [path, stored] : saved.members) each(stored.member);
  return differences(saved.members, live->members);
}

Result<Differences> compare_with_live(const Id& older, const Deadline& deadline, const EachMember& each) {
  Result<OpenRow> row = open_row(older, deadline);
  if (!row) return row.error();
  return compare_contents(*row, each);
}

Result<bool> has_bytes_of_live(const Snapshot& snapshot, const Deadline& deadline) {
  const EachMember ignore = [](const Member&) {};
  const Result<Differences> found =
      compare_with_live({snapshot.config.name, snapshot.config.vers}, deadline, ignore);
  if (found) return found->empty();
  const Error& error = found.error();
  if (error.code == Code::busy) return error;
  // A save would leave such a file out: the snapshot is the better copy.
  return error.code == Code::denied && error.path != storage_file();
}

Result<Differences> compare(const Id& older, Live, const ReadOptions& options) {
  return at_boundary([&] { return compare_live(older, Deadline(options.wait)); });
}

Result<Differences> compare(const Id& older, const Id& newer, const ReadOptions& options) {
  return at_boundary([&] { return compare_rows(older, newer, options); });
}

}  // namespace ConfSave::snapshots
