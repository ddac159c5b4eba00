// verify: whether a snapshot can be restored, and is what was saved.

#include "snapshots/boundary.h"
#include "snapshots/manifest_check.h"
#include "snapshots/member_collector.h"
#include "snapshots/notes.h"
#include "snapshots/row_reader.h"
#include "snapshots/sentence.h"

namespace ConfSave::snapshots {
namespace {

bool is_about_the_archive(const Error& error) {
  return error.code == Code::damaged || error.code == Code::unsafe;
}

class Verifying {
 public:
  Verifying(const Id& id, const ReadOptions& options) : id_(id), deadline_(options.wait) {}

  Result<Verdict> run() {
    Result<OpenRow> row = open_row(id_, deadline_);
    if (!row) return row.error();
    verdict_.snapshot = row->snapshot;
    Error error = judge_types(*row);
    if (error.code != Code::ok) return error;
    // What is wrong with the notes is no fault of the snapshot.
    const Error notes_error = find_manifest();
    for (const Column& column : columns_of(row->snapshot.config.type)) {
      error = judge(read_archive_of(*row, column));
      if (error.code != Code::ok) return error;
    }
    compare(notes_error);
    return std::move(verdict_);
  }

 private:
  Error judge_types(OpenRow& row) {
    Error error = judge(check_type(row, "name", "text"));
    if (error.code == Code::ok) error = judge(check_type(row, "version", "integer"));
    return error.code == Code::ok ? judge(check_type(row, "type", "integer")) : error;
  }

  /// Any other error ends the verification.
  Error judge(Error error) {
    if (!is_about_the_archive(error)) return error;
    const bool unsafe = error.code == Code::unsafe;
    if (verdict_.state != Verdict::State::damaged) {
      verdict_.state = unsafe ? Verdict::State::unsafe : Verdict::State::damaged;
    }
    verdict_.problems.push_back(sentence(error));
    return {};
  }

  Error find_manifest() {
    Result<std::optional<Notes>> notes = Notes::open(deadline_.left());
    if (!notes) return notes.error();
    if (!*notes) return {};
    notes_ = std::move(*notes);
    Result<std::optional<ManifestReader>> manifest = notes_->open_manifest(verdict_.snapshot);
    if (!manifest) return manifest.error();
    if (!*manifest) return {};
    Result<std::vector<std::string>> missing = (*manifest)->missing();
    if (!missing) return missing.error();
    verdict_.missing = std::move(*missing);
    check_.emplace(std::move(**manifest));
    return {};
  }

  Error read_archive_of(OpenRow& row, const Column& column) {
    // The manifest has the numbers of the save.
    MemberReader members(column.base, OwnedBy::whom_it_was_saved, [this](const Member& member) {
      if (check_) check_->add(member);
      return Error{};
    });
    const EntryHandler unread{[](const Entry&) { return Error{}; },
                              [](std::string_view) { return Error{}; }, [] { return Error{}; }};
    return read_column(row, column, check_ ? members.handler() : unread);
  }

  /// What an archive does not have that cannot be decoded is no news.
  void compare(Error notes_error) {
    const bool is_decoded = verdict_.state == Verdict::State::intact;
    if (check_ && is_decoded) check_->look_for_absent();
    if (check_) notes_error = check_->error();
    if (check_ && notes_error.code == Code::ok) {
      for (std::string& problem : check_->problems()) {
        verdict_.state = Verdict::State::damaged;
        verdict_.problems.push_back(std::move(problem));
      }
      return;
    }
    if (is_decoded) verdict_.state = Verdict::State::unproven;
    if (notes_error.code != Code::ok) verdict_.problems.push_back(sentence(notes_error));
  }

  const Id& id_;
  Deadline deadline_;
  Verdict verdict_;
  std::optional<Notes> notes_;
  std::optional<ManifestCheck> check_;
};

}  // namespace

Result<Verdict> verify(const Id& id, const ReadOptions& options) {
  return at_boundary([&] { return Verifying(id, options).run(); });
}

}  // namespace ConfSave::snapshots
