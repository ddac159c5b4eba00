#include "snapshots/manifest.h"

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

/// False if the row is not one that was written here.
bool read_member(const Statement& row, std::map<std::string, LiveMember>& members) {
  const std::optional<Digest> digest = row.digest(7);
  const int64 kind = row.number(1);
  if (!digest || kind < 0 || kind > static_cast<int64>(Kind::hardlink)) return false;
  LiveMember& live = members[row.text(0)];
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
  return true;
}

/// Calls `read` for each row; false if it returned false.
template <class Read>
Result<bool> for_each_row(Database& notes, const char* text, int64 id, Read read) {
  Result<Statement> statement = notes.prepare(text);
  if (!statement) return statement.error();
  statement->bind(id);
  for (;;) {
    const int code = statement->step();
    if (code == SQLITE_DONE) return true;
    if (code != SQLITE_ROW) return notes.error();
    if (!read(*statement)) return false;
  }
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
  return error;
}

Result<std::optional<Manifest>> read_manifest(Database& notes, const Snapshot& snapshot) {
  Result<Statement> head = notes.prepare(
      "select moment, members, missing from manifest where id = ? and saved = ? and keybase = ? and "
      "etc = ?");
  if (!head) return head.error();
  head->bind(snapshot.id).bind(snapshot.config.save_time);
  head->bind(snapshot.keybase_size).bind(snapshot.etc_size);
  const int code = head->step();
  if (code == SQLITE_DONE) return std::optional<Manifest>();
  if (code != SQLITE_ROW) return notes.error();
  Manifest manifest;
  manifest.tree.moment = head->number(0);
  const Result<bool> members = for_each_row(
      notes,
      "select path, kind, mode, uid, gid, size, time, sha256, target, secret, device, inode, modified, "
      "changed from member where manifest = ?",
      snapshot.id, [&](const Statement& row) { return read_member(row, manifest.tree.members); });
  if (!members) return members.error();
  const Result<bool> missing = for_each_row(notes, "select path from missing where manifest = ?",
                                            snapshot.id, [&](const Statement& row) {
                                              manifest.missing.push_back(row.text(0));
                                              return true;
                                            });
  if (!missing) return missing.error();
  const bool is_whole = *members && head->number(1) == static_cast<int64>(manifest.tree.members.size()) &&
                        head->number(2) == static_cast<int64>(manifest.missing.size());
  return is_whole ? std::optional<Manifest>(std::move(manifest)) : std::nullopt;
}

Error delete_manifest(Database& notes, int64 id) {
  for (const char* text : {"delete from manifest where id = ?", "delete from member where manifest = ?",
                           "delete from missing where manifest = ?"}) {
    Result<Statement> statement = notes.prepare(text);
    if (!statement) return statement.error();
    if (!statement->bind(id).run()) return notes.error();
  }
  return {};
}

}  // namespace ConfSave::snapshots
