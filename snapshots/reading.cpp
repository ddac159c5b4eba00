// list, find, members, read_file, compare, verify: what only reads.

#include <algorithm>
#include <utility>

#include "snapshots/archive_path.h"
#include "snapshots/boundary.h"
#include "snapshots/differences.h"
#include "snapshots/member_collector.h"
#include "snapshots/notes.h"
#include "snapshots/storage_reader.h"
#include "snapshots/tree.h"

namespace ConfSave::snapshots {
namespace {

/// One of the two archives of a row.
struct Column {
  const char* name;
  Base base;
};

std::vector<Column> columns_of(conftype type) {
  if (type == conf_corlu) return {{"keybase", Base::configuration}};
  return {{"keybase", Base::configuration}, {"etc", Base::failover}};
}

Error not_found(const std::string& name) {
  return {Code::not_found, 0, "", "there is no snapshot '" + printable(name) + "'"};
}

/// The row `id` and the connection that found it, in one read transaction, so that its archives are of the
/// same moment.
struct OpenRow {
  StorageReader reader;
  Snapshot snapshot;
  int64 rowid = 0;  ///< what SQLite opens archives by; in a foreign table not the column "id"
};

Error find_rowid(OpenRow& row) {
  Result<Statement> statement =
      row.reader.database().prepare("select rowid from Config where id = ? and name = ? and version = ?");
  if (!statement) return statement.error();
  statement->bind(row.snapshot.id).bind(row.snapshot.config.name).bind(row.snapshot.config.vers);
  const int code = statement->step();
  if (code == SQLITE_DONE) return not_found(row.snapshot.config.name);
  if (code != SQLITE_ROW) return row.reader.database().error();
  row.rowid = statement->number(0);
  return {};
}

Result<OpenRow> open_row(const Id& id, std::chrono::milliseconds wait) {
  Result<std::optional<StorageReader>> reader = StorageReader::open(wait);
  if (!reader) return reader.error();
  if (!*reader) return not_found(id.name);
  OpenRow row{std::move(**reader), {}, 0};
  if (Error error = row.reader.begin(); error.code != Code::ok) return error;
  Query query;
  query.pattern = literally(id.name);
  query.version = id.version;
  query.corlu_config = true;
  bool found = false;
  Error error = row.reader.for_each(query, [&](Snapshot snapshot) {
    // SQLite's glob ends at a NUL byte.
    if (snapshot.config.name != id.name) return Error{};
    row.snapshot = std::move(snapshot);
    found = true;
    return Error{};
  });
  if (error.code != Code::ok) return error;
  if (!found) return not_found(id.name);
  if (error = find_rowid(row); error.code != Code::ok) return error;
  return row;
}

/// Code::damaged unless column `name` holds a value of `type`.
Error check_type(OpenRow& row, const char* name, const std::string& type) {
  Result<Statement> statement =
      row.reader.database().prepare("select typeof(" + std::string(name) + ") from Config where rowid = ?");
  if (!statement) return statement.error();
  statement->bind(row.rowid);
  if (statement->step() != SQLITE_ROW) return row.reader.database().error();
  const std::string actual = statement->text(0);
  if (actual == type) return {};
  return {Code::damaged, 0, name, "the column holds a value of type " + actual + ", not " + type};
}

/// Reads one of the archives to its end.
Error read_column(OpenRow& row, const Column& column, const EntryHandler& handler) {
  if (Error error = check_type(row, column.name, "blob"); error.code != Code::ok) return error;
  Result<std::unique_ptr<BlobSource>> blob =
      BlobSource::open(row.reader.database(), column.name, row.rowid);
  if (!blob) return blob.error();
  Error error = read_archive(**blob, Limits{}, handler);
  if (error.path.empty()) error.path = column.name;
  return error;
}

Error collect(OpenRow& row, const Column& column, std::map<std::string, Member>& members) {
  MemberCollector collector(column.base);
  Error error = read_column(row, column, collector.handler());
  if (error.code != Code::ok) return error;
  for (const auto& [path, member] : collector.members()) members[path] = member;
  return {};
}

bool is_about_the_archive(const Error& error) {
  return error.code == Code::damaged || error.code == Code::unsafe;
}

void judge(Verdict& verdict, const Error& error) {
  const bool unsafe = error.code == Code::unsafe;
  if (verdict.state != Verdict::State::damaged) {
    verdict.state = unsafe ? Verdict::State::unsafe : Verdict::State::damaged;
  }
  verdict.problems.push_back(error.path + ": " + error.text);
}

/// Without notes that can be read, a snapshot has none.
void add_notes(Snapshots& snapshots, std::chrono::milliseconds wait) {
  Result<std::optional<Notes>> notes = Notes::open(std::max(wait, std::chrono::milliseconds(0)));
  if (!notes || !*notes) return;
  const Result<std::map<int64, Note>> found = (*notes)->read(snapshots);
  if (!found) return;
  for (Snapshot& snapshot : snapshots) {
    const auto note = found->find(snapshot.id);
    if (note == found->end()) continue;
    snapshot.comment = note->second.comment;
    snapshot.author = note->second.author;
    snapshot.pinned = note->second.pinned;
  }
}

Result<Snapshots> list_rows(const Query& query) {
  const auto start = std::chrono::steady_clock::now();
  Result<std::optional<StorageReader>> reader = StorageReader::open(query.wait);
  if (!reader) return reader.error();
  Snapshots snapshots;
  if (!*reader) return snapshots;
  const Error error = (*reader)->for_each(query, [&snapshots](Snapshot snapshot) {
    snapshots.push_back(std::move(snapshot));
    return Error{};
  });
  if (error.code != Code::ok) return error;
  const auto waited = std::chrono::steady_clock::now() - start;
  add_notes(snapshots, query.wait - std::chrono::duration_cast<std::chrono::milliseconds>(waited));
  return snapshots;
}

Result<Snapshot> find_row(const Query& query) {
  Result<Snapshots> found = list_rows(query);
  if (!found) return found.error();
  if (found->empty()) return not_found(query.pattern);
  if (found->size() > 1) {
    return Error{Code::ambiguous, 0, "",
                 std::to_string(found->size()) + " snapshots match '" + printable(query.pattern) + "'"};
  }
  return found->front();
}

/// The members of a row by path, and its type.
struct Contents {
  conftype type = conf_none;
  std::map<std::string, Member> members;
};

Result<Contents> read_contents(const Id& id, std::chrono::milliseconds wait) {
  Result<OpenRow> row = open_row(id, wait);
  if (!row) return row.error();
  Contents stored{row->snapshot.config.type, {}};
  for (const Column& column : columns_of(stored.type)) {
    if (Error error = collect(*row, column, stored.members); error.code != Code::ok) return error;
  }
  return stored;
}

Result<Members> read_members(const Id& id, const ReadOptions& options) {
  Result<Contents> stored = read_contents(id, options.wait);
  if (!stored) return stored.error();
  Members result;
  result.reserve(stored->members.size());
  for (auto& [path, member] : stored->members) result.push_back(std::move(member));
  return result;
}

Result<Differences> compare_with_live(const Id& older, const ReadOptions& options) {
  const Result<Contents> stored = read_contents(older, options.wait);
  if (!stored) return stored.error();
  const Result<Tree> live = read_tree(stored->type);
  if (!live) return live.error();
  return differences(stored->members, live->members);
}

Result<Differences> compare_rows(const Id& older, const Id& newer, const ReadOptions& options) {
  const Result<Contents> before = read_contents(older, options.wait);
  if (!before) return before.error();
  const Result<Contents> after = read_contents(newer, options.wait);
  if (!after) return after.error();
  return differences(before->members, after->members);
}

Result<Verdict> check_row(const Id& id, const ReadOptions& options) {
  Result<OpenRow> row = open_row(id, options.wait);
  if (!row) return row.error();
  Verdict verdict;
  verdict.snapshot = row->snapshot;
  if (const Error error = check_type(*row, "type", "integer"); error.code != Code::ok) {
    if (!is_about_the_archive(error)) return error;
    judge(verdict, error);
  }
  std::map<std::string, Member> ignored;
  for (const Column& column : columns_of(row->snapshot.config.type)) {
    const Error error = collect(*row, column, ignored);
    if (error.code == Code::ok) continue;
    if (!is_about_the_archive(error)) return error;
    judge(verdict, error);
  }
  return verdict;
}

/// Which entry of an archive has the content of a path.
struct Place {
  Kind kind = Kind::file;
  int64 entry = 0;
};
using Places = std::map<std::string, Place>;

Error locate(OpenRow& row, const Column& column, Places& places) {
  int64 count = 0;
  const auto begin = [&](const Entry& entry) {
    const Place place{entry.kind, count++};
    // The reader has seen to it that the file comes before its links.
    places[entry.path] = entry.kind == Kind::hardlink ? places.at(entry.target) : place;
    return Error{};
  };
  return read_column(row, column,
                     {begin, [](std::string_view) { return Error{}; }, [] { return Error{}; }});
}

Error pass_content(OpenRow& row, const Column& column, int64 wanted, const Sink& sink) {
  int64 count = -1;
  return read_column(row, column,
                     {[&](const Entry&) {
                        ++count;
                        return Error{};
                      },
                      [&](std::string_view piece) { return count == wanted ? sink(piece) : Error{}; },
                      [] { return Error{}; }});
}

Error pass_file(const Id& id, const std::string& path, const Sink& sink, const ReadOptions& options) {
  Result<OpenRow> row = open_row(id, options.wait);
  if (!row) return row.error();
  std::optional<Place> place;
  Column found{};
  for (const Column& column : columns_of(row->snapshot.config.type)) {
    Places places;
    if (Error error = locate(*row, column, places); error.code != Code::ok) return error;
    const std::string directory = directory_of(column.base);
    if (path.compare(0, directory.size(), directory) != 0) continue;
    const auto entry = places.find(path.substr(directory.size()));
    if (entry == places.end()) continue;
    place = entry->second;
    found = column;
  }
  if (!place) return {Code::not_found, 0, printable(path), "the snapshot has no such file"};
  if (place->kind != Kind::file) {
    return {Code::bad_argument, 0, printable(path), "this is not a regular file, and has no content"};
  }
  return pass_content(*row, found, place->entry, sink);
}

}  // namespace

Result<Snapshots> list(const Query& query) {
  return at_boundary([&] { return list_rows(query); });
}

Result<Snapshot> find(const Query& query) {
  return at_boundary([&] { return find_row(query); });
}

Result<Members> members(const Id& id, const ReadOptions& options) {
  return at_boundary([&] { return read_members(id, options); });
}

Error read_file(const Id& id, const std::string& path, const Sink& sink, const ReadOptions& options) {
  return error_at_boundary([&] { return pass_file(id, path, sink, options); });
}

Result<Differences> compare(const Id& older, Live, const ReadOptions& options) {
  return at_boundary([&] { return compare_with_live(older, options); });
}

Result<Differences> compare(const Id& older, const Id& newer, const ReadOptions& options) {
  return at_boundary([&] { return compare_rows(older, newer, options); });
}

Result<Verdict> verify(const Id& id, const ReadOptions& options) {
  return at_boundary([&] { return check_row(id, options); });
}

}  // namespace ConfSave::snapshots
