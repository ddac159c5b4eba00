#include "snapshots/row_reader.h"

#include <utility>

#include "snapshots/member_collector.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {

std::vector<Column> columns_of(conftype type) {
  if (type == conf_corlu) return {{"keybase", Base::configuration}};
  return {{"keybase", Base::configuration}, {"etc", Base::failover}};
}

Error not_found(const std::string& name) {
  return {Code::not_found, 0, "", "there is no snapshot '" + printable(name) + "'"};
}

Error several_of(const std::string& name) {
  return {Code::ambiguous, 0, "", "more than one snapshot is stored as '" + printable(name) + "'"};
}

namespace {

Error find_rowid(OpenRow& row) {
  Result<Statement> statement = row.reader.database().prepare(
      "select rowid from Config where id = ? and cast(name as text) = ? and "
      "ifnull(cast(version as integer), 0) = ?");
  if (!statement) {
    // The columns were listed already.
    Error error = statement.error();
    if ((error.number & 0xff) == SQLITE_ERROR) error.text = "the table 'Config' is one without row ids";
    return error;
  }
  statement->bind(row.snapshot.id).bind(row.snapshot.config.name).bind(row.snapshot.config.vers);
  const int code = statement->step();
  if (code == SQLITE_DONE) return not_found(row.snapshot.config.name);
  if (code != SQLITE_ROW) return row.reader.database().error();
  row.rowid = statement->number(0);
  return {};
}

/// The row of `id` among those of `query`.
Result<std::optional<Snapshot>> find_among(StorageReader& reader, const Id& id, const Query& query,
                                           const Snapshot* only) {
  std::optional<Snapshot> found;
  Error error = reader.for_each(query, [&](Snapshot snapshot) {
    // SQLite's glob ends at a NUL byte.
    const bool is_named = snapshot.config.name == id.name && snapshot.config.vers == id.version;
    if (is_named && (only == nullptr || only->id == snapshot.id)) found = std::move(snapshot);
    return Error{};
  });
  if (error.code != Code::ok) return error;
  return found;
}

}  // namespace

Result<Snapshot> row_of(StorageReader& reader, const Id& id, const Snapshot* only) {
  Query query;
  query.pattern = literally(id.name);
  query.version = id.version;
  query.corlu_config = true;
  Result<std::optional<Snapshot>> found = find_among(reader, id, query, only);
  // A version that is no integer equals none, but is listed as one.
  query.version.reset();
  if (found && !*found) found = find_among(reader, id, query, only);
  if (!found) return found.error();
  if (!*found) return not_found(id.name);
  return std::move(**found);
}

Result<OpenRow> open_row(const Id& id, const Deadline& deadline) {
  Result<std::optional<StorageReader>> reader = StorageReader::open(deadline.left());
  if (!reader) return reader.error();
  if (!*reader) return not_found(id.name);
  OpenRow row{std::move(**reader), {}, 0};
  if (Error error = row.reader.begin(); error.code != Code::ok) return error;
  Result<Snapshot> found = row_of(row.reader, id);
  if (!found) return found.error();
  row.snapshot = std::move(*found);
  if (Error error = find_rowid(row); error.code != Code::ok) return error;
  return row;
}

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

namespace {

/// Reports what is read from a source.
class Counted : public Source {
 public:
  Counted(Source& source, const PackedProgress& progress) : source_(source), progress_(progress) {}

  Result<std::string_view> next() override {
    Result<std::string_view> piece = source_.next();
    if (piece && progress_) progress_(static_cast<int64>(piece->size()));
    return piece;
  }

 private:
  Source& source_;
  const PackedProgress& progress_;
};

}  // namespace

Error read_column(OpenRow& row, const Column& column, const EntryHandler& handler,
                  const PackedProgress& progress) {
  if (Error error = check_type(row, column.name, "blob"); error.code != Code::ok) return error;
  Result<std::unique_ptr<BlobSource>> blob =
      BlobSource::open(row.reader.database(), column.name, row.rowid);
  if (!blob) return blob.error();
  Counted counted(**blob, progress);
  Error error = read_archive(counted, Limits{}, handler);
  if (error.path.empty()) error.path = column.name;
  return error;
}

Result<std::map<std::string, Member>> read_contents(OpenRow& row, ContentCheck* check) {
  std::map<std::string, Member> members;
  for (const Column& column : columns_of(row.snapshot.config.type)) {
    MemberCollector collector(column.base, OwnedBy::whom_a_restore_sets, check);
    Error error = read_column(row, column, collector.handler());
    if (error.code != Code::ok) return error;
    std::map<std::string, Member> later = collector.take();
    later.merge(members);
    members.swap(later);
  }
  return members;
}

}  // namespace ConfSave::snapshots
