// list, find, members, read_file.

#include <map>
#include <optional>
#include <utility>

#include "snapshots/arguments.h"
#include "snapshots/boundary.h"
#include "snapshots/listing.h"
#include "snapshots/member_collector.h"
#include "snapshots/row_reader.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

/// Without notes that can be read, a snapshot has none.
Error add_notes(Snapshots& snapshots, const Deadline& deadline, std::optional<Notes>& notes) {
  Result<std::optional<Notes>> opened = Notes::open(deadline.left());
  if (!opened) return opened.error();
  if (!*opened) return {};
  notes = std::move(*opened);
  const Result<std::map<int64, Note>> found = notes->read(snapshots);
  if (!found) return found.error();
  for (Snapshot& snapshot : snapshots) {
    const auto note = found->find(snapshot.id);
    if (note == found->end()) continue;
    snapshot.comment = note->second.comment;
    snapshot.author = note->second.author;
    snapshot.pinned = note->second.pinned;
  }
  return {};
}

Result<Snapshots> list_rows(const Query& query, Error& notes) {
  notes = {};
  if (Error error = check_pattern(query.pattern); error.code != Code::ok) return error;
  Listing opened;
  Result<Snapshots> rows = snapshots::list_rows(query, Deadline(query.wait), opened);
  notes = std::move(opened.notes_error);
  return rows;
}

Result<Snapshot> find_row(const Query& query) {
  Error notes;
  Result<Snapshots> found = list_rows(query, notes);
  if (!found) return found.error();
  if (found->empty()) return not_found(query.pattern);
  if (found->size() > 1) {
    return Error{Code::ambiguous, 0, "",
                 std::to_string(found->size()) + " snapshots match '" + printable(query.pattern) + "'"};
  }
  return found->front();
}

Result<Members> read_members(const Id& id, const ReadOptions& options) {
  Result<OpenRow> row = open_row(id, Deadline(options.wait));
  if (!row) return row.error();
  Result<std::map<std::string, Member>> stored = read_contents(*row);
  if (!stored) return stored.error();
  Members result;
  result.reserve(stored->size());
  for (auto& [path, member] : *stored) result.push_back(std::move(member));
  return result;
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
  if (Error error = check_sink(sink); error.code != Code::ok) return error;
  Result<OpenRow> row = open_row(id, Deadline(options.wait));
  if (!row) return row.error();
  std::optional<Place> place;
  Column found{};
  for (const Column& column : columns_of(row->snapshot.config.type)) {
    Places places;
    if (Error error = locate(*row, column, places); error.code != Code::ok) return error;
    const std::string directory = directory_of(column.base);
    if (!begins_with(path, directory)) continue;
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

Result<Snapshots> list_rows(const Query& query, const Deadline& deadline, Listing& opened) {
  Result<std::optional<StorageReader>> reader = StorageReader::open(deadline.left());
  if (!reader) return reader.error();
  Snapshots snapshots;
  if (!*reader) return snapshots;
  opened.storage = std::move(*reader);
  Error error = opened.storage->begin();
  if (error.code == Code::ok) {
    error = opened.storage->for_each(query, [&snapshots](Snapshot snapshot) {
      snapshots.push_back(std::move(snapshot));
      return Error{};
    });
  }
  if (error.code != Code::ok) return error;
  opened.notes_error = add_notes(snapshots, deadline, opened.notes);
  return snapshots;
}

Result<Snapshots> list(const Query& query) {
  Error notes;
  return list(query, notes);
}

Result<Snapshots> list(const Query& query, Error& notes) {
  return at_boundary([&] { return list_rows(query, notes); });
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

}  // namespace ConfSave::snapshots
