#include "snapshots/row_copy.h"

#include "snapshots/digest.h"

namespace ConfSave::snapshots {
namespace {

struct CloseBlob {
  void operator()(sqlite3_blob* blob) const { sqlite3_blob_close(blob); }
};
using Blob = std::unique_ptr<sqlite3_blob, CloseBlob>;

constexpr const char* kArchives[] = {"keybase", "etc"};

/// Fills a blob of zeros.
Error fill_blob(Database& from, int64 from_row, Database& to, int64 to_row, const char* column) {
  Result<std::unique_ptr<BlobSource>> source = BlobSource::open(from, column, from_row);
  if (!source) return source.error();
  sqlite3_blob* opened = nullptr;
  const int code = sqlite3_blob_open(to.get(), "main", "Config", column, to_row, 1, &opened);
  const Blob blob(opened);
  if (code != SQLITE_OK) return to.error();
  for (int offset = 0;;) {
    const Result<std::string_view> piece = (*source)->next();
    if (!piece) return piece.error();
    if (piece->empty()) return {};
    const int size = static_cast<int>(piece->size());
    if (sqlite3_blob_write(blob.get(), piece->data(), size, offset) != SQLITE_OK) return to.error();
    offset += size;
  }
}

/// Copies everything except the content of the archives, which SQLite would read into memory. Which of
/// them are blobs, `is_blob` says afterwards.
Result<int64> insert(Database& from, const RowToCopy& row, Database& to, bool (&is_blob)[2]) {
  Result<Statement> values = from.prepare(
      "select id, name, version, type, save_time, load_time, "
      "case typeof(keybase) when 'blob' then null else keybase end, "
      "case typeof(etc) when 'blob' then null else etc end, "
      "typeof(keybase) = 'blob', typeof(etc) = 'blob', length(keybase), length(etc) "
      "from Config where rowid = ?");
  if (!values) return values.error();
  if (values->bind(row.rowid).step() != SQLITE_ROW) return from.error();
  Result<Statement> copy = to.prepare(
      "insert into Config (id, name, version, type, save_time, load_time, keybase, etc) "
      "values (?,?,?,?,?,?,?,?)");
  if (!copy) return copy.error();
  if (row.keep_id) {
    copy->bind(*values, 0);
  } else if (row.id) {
    copy->bind(*row.id);
  } else {
    copy->bind_null();
  }
  if (row.name) {
    copy->bind(*row.name);
  } else {
    copy->bind(*values, 1);
  }
  for (int column = 2; column <= 5; ++column) copy->bind(*values, column);
  for (int archive = 0; archive < 2; ++archive) {
    is_blob[archive] = values->number(8 + archive) != 0;
    if (is_blob[archive]) {
      copy->bind_zeros(values->number(10 + archive));
    } else {
      copy->bind(*values, 6 + archive);
    }
  }
  if (copy->step() != SQLITE_DONE) return to.error();
  return int64{sqlite3_last_insert_rowid(to.get())};
}

Error compare(const std::optional<Digest>& wanted, const std::optional<Digest>& found, const Database& to) {
  if (wanted == found) return {};
  return {Code::changed_meanwhile, 0, to.file(), "an archive is not what was read before"};
}

}  // namespace

Result<std::optional<Digest>> digest_of(Database& database, const char* column, int64 rowid) {
  Result<Statement> type =
      database.prepare("select typeof(" + std::string(column) + ") = 'null' from Config where rowid = ?");
  if (!type) return type.error();
  if (type->bind(rowid).step() != SQLITE_ROW) return database.error();
  if (type->number(0) != 0) return std::optional<Digest>();
  Result<std::unique_ptr<BlobSource>> source = BlobSource::open(database, column, rowid);
  if (!source) return source.error();
  Sha256 sha256;
  for (;;) {
    const Result<std::string_view> piece = (*source)->next();
    if (!piece) return piece.error();
    if (piece->empty()) return std::optional<Digest>(sha256.finish());
    sha256.add(piece->data(), piece->size());
  }
}

Result<int64> copy_row(Database& from, const RowToCopy& row, Database& to) {
  bool is_blob[2] = {};
  Result<int64> id = insert(from, row, to, is_blob);
  if (!id) return id.error();
  for (int archive = 0; archive < 2; ++archive) {
    if (!is_blob[archive]) continue;
    Error error = fill_blob(from, row.rowid, to, *id, kArchives[archive]);
    if (error.code != Code::ok) return error;
  }
  if (row.digests == nullptr) return id;
  const std::optional<Digest>* const wanted[] = {&row.digests->keybase, &row.digests->etc};
  for (int archive = 0; archive < 2; ++archive) {
    const Result<std::optional<Digest>> found = digest_of(to, kArchives[archive], *id);
    if (!found) return found.error();
    if (Error error = compare(*wanted[archive], *found, to); error.code != Code::ok) return error;
  }
  return id;
}

}  // namespace ConfSave::snapshots
