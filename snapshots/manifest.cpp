#include "snapshots/manifest.h"

#include <algorithm>

#include "contents.h"
#include "places.h"
#include "snapshots/archive_path.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {

const char* const kManifestTables =
    "create table manifest (id integer primary key, saved integer not null, keybase integer not null, "
    "etc integer not null, moment integer not null, members integer not null, missing integer not null); "
    "create table member (manifest integer not null, path text not null, kind integer not null, "
    "mode integer not null, uid integer not null, gid integer not null, size integer not null, "
    "time integer not null, sha256 blob not null, target text not null, secret integer not null, "
    "device integer not null, inode integer not null, modified integer not null, "
    "changed integer not null, primary key (manifest, path)) without rowid; "
    "create table missing (manifest integer not null, path text not null, "
    "primary key (manifest, path)) without rowid; ";

const char* const kParentTable =
    "create table parent (manifest integer not null, path text not null, mode integer not null, "
    "uid integer not null, gid integer not null, primary key (manifest, path)) without rowid; ";

namespace {

Error write_members(Database& notes, int64 id, const std::map<std::string, LiveMember>& members) {
  Result<Statement> insert = notes.prepare(
      "insert into member (manifest, path, kind, mode, uid, gid, size, time, sha256, target, secret, "
      "device, inode, modified, changed) values (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
  if (!insert) return insert.error();
  for (const auto& [path, live] : members) {
    const Member& member = live.member;
    insert->bind(id).bind(path).bind(static_cast<int64>(member.kind)).bind(int64{member.mode});
    insert->bind(int64{member.uid}).bind(int64{member.gid}).bind(member.size).bind(member.time);
    insert->bind(member.sha256).bind(member.target).bind(int64{member.secret ? 1 : 0});
    insert->bind(static_cast<int64>(live.stamp.device)).bind(static_cast<int64>(live.stamp.inode));
    insert->bind(live.stamp.modified).bind(live.stamp.changed);
    if (!insert->run()) return notes.error();
  }
  return {};
}

Error write_missing(Database& notes, int64 id, const std::vector<std::string>& missing) {
  Result<Statement> insert = notes.prepare("insert into missing (manifest, path) values (?,?)");
  if (!insert) return insert.error();
  for (const std::string& path : missing) {
    if (!insert->bind(id).bind(path).run()) return notes.error();
  }
  return {};
}

Error write_parents(Database& notes, int64 id, const Parents& parents) {
  Result<Statement> insert =
      notes.prepare("insert into parent (manifest, path, mode, uid, gid) values (?,?,?,?,?)");
  if (!insert) return insert.error();
  for (const auto& [path, parent] : parents) {
    insert->bind(id).bind(path).bind(int64{parent.mode}).bind(int64{parent.uid}).bind(int64{parent.gid});
    if (!insert->run()) return notes.error();
  }
  return {};
}

constexpr const char* kMembers =
    "select path, kind, mode, uid, gid, size, time, sha256, target, secret, device, inode, modified, "
    "changed from member where manifest = ?";

/// No value if the row is not one that was written here.
std::optional<LiveMember> read_member(const Statement& row) {
  const std::optional<Digest> digest = row.digest(7);
  const int64 kind = row.number(1);
  if (!digest || kind < 0 || kind > static_cast<int64>(Kind::hardlink)) return {};
  LiveMember live;
  live.member.path = row.text(0);
  live.member.kind = static_cast<Kind>(kind);
  live.member.mode = static_cast<std::uint32_t>(row.number(2));
  live.member.uid = static_cast<std::uint32_t>(row.number(3));
  live.member.gid = static_cast<std::uint32_t>(row.number(4));
  live.member.size = row.number(5);
  live.member.time = row.number(6);
  live.member.sha256 = *digest;
  live.member.target = row.text(8);
  live.member.secret = row.number(9) != 0;
  live.stamp.device = static_cast<std::uint64_t>(row.number(10));
  live.stamp.inode = static_cast<std::uint64_t>(row.number(11));
  live.stamp.size = live.member.size;
  live.stamp.modified = row.number(12);
  live.stamp.changed = row.number(13);
  return live;
}

/// Whether the files of a manifest that are below `configuration` are at paths of the contents there. All
/// were in one directory: one path shows it.
Result<bool> is_of(const std::string& configuration, Database& notes, int64 id) {
  Result<Statement> rows =
      notes.prepare("select path from member where manifest = ? and instr(path, ?) = 1 order by path");
  if (!rows) return rows.error();
  const std::string failover = kFailoverDirectory;
  rows->bind(id).bind(configuration);
  for (int code = rows->step(); code != SQLITE_DONE; code = rows->step()) {
    if (code != SQLITE_ROW) return notes.error();
    const std::string path = rows->text(0);
    // The one directory may be in the other.
    if (failover.size() >= configuration.size() && begins_with(path, failover)) continue;
    const std::vector<ContentsEntry> entries = contents();
    return std::any_of(entries.begin(), entries.end(), [&](const ContentsEntry& entry) {
      return entry.base == Base::configuration && is_covered(path.substr(configuration.size()), entry.path);
    });
  }
  return true;
}

}  // namespace

Error write_manifest(Database& notes, const Snapshot& snapshot, const Manifest& manifest) {
  if (Error error = delete_manifest(notes, snapshot.id); error.code != Code::ok) return error;
  Result<Statement> insert = notes.prepare(
      "insert into manifest (id, saved, keybase, etc, moment, members, missing) values (?,?,?,?,?,?,?)");
  if (!insert) return insert.error();
  insert->bind(snapshot.id).bind(snapshot.config.save_time);
  insert->bind(snapshot.keybase_size).bind(snapshot.etc_size).bind(manifest.tree.moment);
  insert->bind(static_cast<int64>(manifest.tree.members.size()));
  insert->bind(static_cast<int64>(manifest.missing.size()));
  if (!insert->run()) return notes.error();
  Error error = write_members(notes, snapshot.id, manifest.tree.members);
  if (error.code == Code::ok) error = write_missing(notes, snapshot.id, manifest.missing);
  if (error.code == Code::ok) error = write_parents(notes, snapshot.id, manifest.parents);
  return error;
}

Result<std::optional<ManifestReader>> ManifestReader::open(Database& notes, const Snapshot& snapshot,
                                                           const std::string& configuration) {
  // Every text begins with an empty one.
  Result<Statement> head = notes.prepare(
      "select moment, members = (select count(*) from member where manifest = id and "
      "(instr(path, ?) = 1 or instr(path, ?) = 1)) and "
      "missing = (select count(*) from missing where manifest = id and "
      "(instr(path, ?) = 1 or instr(path, ?) = 1)) "
      "from manifest where id = ? and saved = ? and keybase = ? and etc = ?");
  if (!head) return head.error();
  for (int table = 0; table < 2; ++table) {
    head->bind(configuration).bind(std::string(kFailoverDirectory));
  }
  head->bind(snapshot.id).bind(snapshot.config.save_time);
  head->bind(snapshot.keybase_size).bind(snapshot.etc_size);
  const int code = head->step();
  if (code != SQLITE_ROW && code != SQLITE_DONE) return notes.error();
  if (code == SQLITE_DONE || head->number(1) == 0) return std::optional<ManifestReader>();
  const Result<bool> is_here = configuration.empty() ? true : is_of(configuration, notes, snapshot.id);
  if (!is_here) return is_here.error();
  if (!*is_here) return std::optional<ManifestReader>();
  return std::optional<ManifestReader>(ManifestReader(notes, snapshot.id, head->number(0)));
}

Error ManifestReader::damaged() const {
  return {Code::damaged, 0, notes_->file(), "a row of a manifest has values that nobody wrote"};
}

Result<std::optional<LiveMember>> ManifestReader::find(const std::string& path) {
  if (!find_) {
    Result<Statement> find = notes_->prepare(std::string(kMembers) + " and path = ?");
    if (!find) return find.error();
    find_.emplace(std::move(*find));
  }
  find_->reset();
  const int code = find_->bind(id_).bind(path).step();
  if (code == SQLITE_DONE) return std::optional<LiveMember>();
  if (code != SQLITE_ROW) return notes_->error();
  std::optional<LiveMember> member = read_member(*find_);
  if (!member) return damaged();
  return member;
}

Error ManifestReader::for_each(const std::function<void(LiveMember)>& take) {
  Result<Statement> rows = notes_->prepare(std::string(kMembers) + " order by path");
  if (!rows) return rows.error();
  rows->bind(id_);
  for (int code = rows->step(); code != SQLITE_DONE; code = rows->step()) {
    if (code != SQLITE_ROW) return notes_->error();
    std::optional<LiveMember> member = read_member(*rows);
    if (!member) return damaged();
    take(std::move(*member));
  }
  return {};
}

Result<Tree> ManifestReader::tree() {
  Tree tree;
  tree.moment = moment_;
  Error error = for_each([&tree](LiveMember live) {
    std::string path = live.member.path;
    tree.members.emplace_hint(tree.members.end(), std::move(path), std::move(live));
  });
  if (error.code != Code::ok) return error;
  return tree;
}

Result<std::vector<std::string>> ManifestReader::missing() {
  std::vector<std::string> paths;
  Result<Statement> rows = notes_->prepare("select path from missing where manifest = ? order by path");
  if (!rows) return rows.error();
  rows->bind(id_);
  for (int code = rows->step(); code != SQLITE_DONE; code = rows->step()) {
    if (code != SQLITE_ROW) return notes_->error();
    paths.push_back(rows->text(0));
  }
  return paths;
}

Result<Parents> ManifestReader::parents() {
  Parents parents;
  Result<Statement> rows = notes_->prepare("select path, mode, uid, gid from parent where manifest = ?");
  if (!rows) return rows.error();
  rows->bind(id_);
  for (int code = rows->step(); code != SQLITE_DONE; code = rows->step()) {
    if (code != SQLITE_ROW) return notes_->error();
    parents[rows->text(0)] = {static_cast<std::uint32_t>(rows->number(1)) & 07777U,
                              static_cast<std::uint32_t>(rows->number(2)),
                              static_cast<std::uint32_t>(rows->number(3))};
  }
  return parents;
}

Error delete_manifest(Database& notes, int64 id) {
  for (const char* text :
       {"delete from manifest where id = ?", "delete from member where manifest = ?",
        "delete from missing where manifest = ?", "delete from parent where manifest = ?"}) {
    Result<Statement> statement = notes.prepare(text);
    if (!statement) return statement.error();
    if (!statement->bind(id).run()) return notes.error();
  }
  return {};
}

}  // namespace ConfSave::snapshots
