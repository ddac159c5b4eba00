// compare: what differs between a snapshot and the live configuration, or another snapshot.

#include "snapshots/boundary.h"
#include "snapshots/differences.h"
#include "snapshots/notes.h"
#include "snapshots/row_reader.h"

namespace ConfSave::snapshots {
namespace {

Result<Differences> compare_with_live(const Id& older, const ReadOptions& options) {
  const Deadline deadline(options.wait);
  Result<OpenRow> row = open_row(older, deadline);
  if (!row) return row.error();
  const conftype type = row->snapshot.config.type;
  if (const std::optional<Manifest> saved = find_manifest(row->snapshot, deadline)) {
    const Result<Tree> live = read_tree_since(saved->tree, type);
    if (!live) return live.error();
    return differences(saved->tree.members, live->members);
  }
  const Result<std::map<std::string, Member>> stored = read_contents(*row);
  if (!stored) return stored.error();
  const Result<Tree> live = read_tree(type);
  if (!live) return live.error();
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

}  // namespace

Result<Differences> compare(const Id& older, Live, const ReadOptions& options) {
  return at_boundary([&] { return compare_with_live(older, options); });
}

Result<Differences> compare(const Id& older, const Id& newer, const ReadOptions& options) {
  return at_boundary([&] { return compare_rows(older, newer, options); });
}

}  // namespace ConfSave::snapshots
