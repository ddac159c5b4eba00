#include "snapshots/bundle_check.h"

#include <sys/stat.h>

#include "snapshots/differences.h"
#include "snapshots/digest.h"
#include "snapshots/member_collector.h"
#include "snapshots/row_reader.h"
#include "snapshots/sentence.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

/// The bytes of an archive on their way to its reader.
class Hashed : public Source {
 public:
  explicit Hashed(Source& source) : source_(source) {}

  Result<std::string_view> next() override {
    Result<std::string_view> piece = source_.next();
    if (piece) sha256_.add(piece->data(), piece->size());
    return piece;
  }

  /// Of everything up to the end, whether the reader wanted it or not.
  Result<Digest> digest() {
    for (;;) {
      const Result<std::string_view> piece = next();
      if (!piece) return piece.error();
      if (piece->empty()) return sha256_.finish();
    }
  }

 private:
  Source& source_;
  Sha256 sha256_;
};

using ByPath = std::map<std::string, Member>;

Error refuse_special_modes(const ByPath& members) {
  for (const auto& [path, member] : members) {
    if (member.kind == Kind::directory || (member.mode & (S_ISUID | S_ISGID)) == 0) continue;
    return {Code::unsafe, 0, printable(path), "the member is set-uid or set-gid"};
  }
  return {};
}

Result<std::optional<Digest>> check_archive(Bundle& bundle, const BundleRow& row, const Column& column,
                                            ByPath& members) {
  Result<std::unique_ptr<BlobSource>> blob = BlobSource::open(bundle.database(), column.name, row.rowid);
  if (!blob) return bundle.explain(blob.error());
  Hashed source(**blob);
  MemberCollector collector(column.base, OwnedBy::whom_it_was_saved);
  Error error = read_archive(source, Limits{}, collector.handler());
  if (error.code == Code::ok) error = refuse_special_modes(collector.members());
  if (error.code != Code::ok) {
    if (error.path.empty()) error.path = column.name;
    return error;
  }
  members.merge(collector.take());
  const Result<Digest> digest = source.digest();
  if (!digest) return bundle.explain(digest.error());
  return std::optional<Digest>(*digest);
}

void add(Sha256& sha256, const std::string& text) {
  const std::uint64_t size = text.size();
  sha256.add(&size, sizeof size);
  sha256.add(text.data(), text.size());
}

void add(Sha256& sha256, int64 number) { sha256.add(&number, sizeof number); }

/// Stands for all that is kept.
Digest digest_of(const RowNotes& notes) {
  Sha256 sha256;
  add(sha256, notes.note.comment);
  add(sha256, notes.note.author);
  add(sha256, static_cast<int64>(notes.note.pinned));
  if (!notes.manifest) return sha256.finish();
  for (const auto& [path, live] : notes.manifest->tree.members) {
    const Member& member = live.member;
    add(sha256, path);
    for (const int64 number :
         {static_cast<int64>(member.kind), int64{member.mode}, int64{member.uid}, int64{member.gid},
          member.size, member.time, static_cast<int64>(member.secret)}) {
      add(sha256, number);
    }
    sha256.add(member.sha256.data(), member.sha256.size());
    add(sha256, member.target);
  }
  for (const std::string& path : notes.manifest->missing) add(sha256, path);
  for (const auto& [path, parent] : notes.manifest->parents) {
    add(sha256, path);
    for (const std::uint32_t number : {parent.mode, parent.uid, parent.gid}) add(sha256, int64{number});
  }
  return sha256.finish();
}

/// Which members hold keys is decided here, and not by the file.
void mark_secrets(Manifest& manifest) {
  const std::pair<Base, Secrets> secrets[] = {{Base::configuration, Secrets(Base::configuration)},
                                              {Base::failover, Secrets(Base::failover)}};
  for (auto& [path, live] : manifest.tree.members) {
    live.member.secret = false;
    for (const auto& [base, of_base] : secrets) {
      const std::string directory = directory_of(base);
      if (!begins_with(path, directory)) continue;
      live.member.secret = live.member.secret || of_base.contains(path.substr(directory.size()));
    }
  }
}

Result<RowNotes> read_notes(Bundle& bundle, const BundleRow& row) {
  Result<Note> note = bundle.note(row.snapshot);
  if (!note) return note.error();
  Result<std::optional<Manifest>> manifest = bundle.manifest(row.snapshot);
  if (!manifest) return manifest.error();
  RowNotes notes{std::move(*note), std::move(*manifest)};
  if (notes.manifest) mark_secrets(*notes.manifest);
  return notes;
}

/// The errors of archives name a member, and not the snapshot.
Error of_row(const Bundle& bundle, const BundleRow& row, Error error) {
  const bool is_about_the_row = error.code == Code::damaged || error.code == Code::unsafe;
  if (!is_about_the_row || error.path == bundle.file()) return error;
  error.text = "'" + row.snapshot.config.name + "': " + sentence(error);
  error.path = bundle.file();
  return error;
}

}  // namespace

Result<CheckedRow> check_row(Bundle& bundle, const BundleRow& row) {
  CheckedRow checked{row, {}, {}};
  ByPath members;
  for (const Column& column : columns_of(row.snapshot.config.type)) {
    Result<std::optional<Digest>> digest = check_archive(bundle, row, column, members);
    if (!digest) return of_row(bundle, row, digest.error());
    (column.base == Base::configuration ? checked.archives.keybase : checked.archives.etc) = *digest;
  }
  const Result<RowNotes> notes = read_notes(bundle, row);
  if (!notes) return notes.error();
  if (notes->manifest) {
    const Differences found = differences(members, notes->manifest->tree.members);
    if (!found.empty()) {
      return of_row(bundle, row,
                    {Code::damaged, 0, printable(found.front().path), "the member is not what was saved"});
    }
  }
  checked.notes = digest_of(*notes);
  return checked;
}

Result<RowNotes> notes_of(Bundle& bundle, const CheckedRow& row) {
  Result<RowNotes> notes = read_notes(bundle, row.row);
  if (!notes || digest_of(*notes) == row.notes) return notes;
  return Error{Code::changed_meanwhile, 0, bundle.file(), "the file changed while it was read"};
}

}  // namespace ConfSave::snapshots
