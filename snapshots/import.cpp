// import_from: stores the snapshots of a file that nobody vouches for.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "places.h"
#include "snapshots/arguments.h"
#include "snapshots/audit.h"
#include "snapshots/boundary.h"
#include "snapshots/bundle_check.h"
#include "snapshots/descriptor.h"
#include "snapshots/early_notes.h"
#include "snapshots/listing.h"
#include "snapshots/lock.h"
#include "snapshots/new_file.h"
#include "snapshots/recover.h"
#include "snapshots/reserve.h"
#include "snapshots/sentence.h"
#include "snapshots/storage_writer.h"
#include "snapshots/summary.h"
#include "snapshots/system_error.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

class Importing {
 public:
  Importing(Bundle bundle, const ImportOptions& options, const Deadline& deadline)
      : bundle_(std::move(bundle)), options_(options), deadline_(deadline) {}

  Result<Imported> run() {
    Error error = choose();
    if (error.code == Code::ok) error = check_versions();
    if (error.code == Code::ok) error = check_names();
    if (error.code == Code::ok) error = check_content();
    if (error.code == Code::ok) error = store();
    if (error.code != Code::ok) return error;
    for (std::size_t i = 0; i < rows_.size(); ++i) keep_notes(rows_[i], notes_[i]);
    for (NewNote& note : notes_) imported_.snapshots.push_back(std::move(note.snapshot));
    Reserve::keep(storage_file());
    return std::move(imported_);
  }

 private:
  Error choose() {
    Result<std::vector<BundleRow>> found = bundle_.rows(options_.pattern.value_or("*"), options_.version);
    if (!found) return found.error();
    if (found->empty() && options_.pattern) {
      return {Code::not_found, 0, bundle_.file(),
              "it has no snapshot '" + printable(*options_.pattern) + "'" +
                  (options_.version ? " of this version" : "")};
    }
    if (found->size() > 1 && (options_.pattern || options_.name)) {
      return {Code::ambiguous, 0, bundle_.file(),
              std::to_string(found->size()) + " of its snapshots match"};
    }
    if (found->empty() && options_.name) return {Code::not_found, 0, bundle_.file(), "it has no snapshot"};
    for (BundleRow& row : *found) rows_.push_back({std::move(row), {}, {}});
    return {};
  }

  Error check_versions() const {
    for (const CheckedRow& row : rows_) {
      const Config& config = row.row.snapshot.config;
      if (config.vers <= CURRENT_VERSION || options_.allow_newer) continue;
      return {Code::newer, 0, bundle_.file(),
              "'" + config.name + "' is of version " + Config::version(config.vers) + ", and this is " +
                  Config::version(CURRENT_VERSION)};
    }
    return {};
  }

  /// Says early what storing would find out, with the pins.
  Error check_names() {
    Query query;
    query.corlu_config = true;
    Listing listing;
    Result<Snapshots> all = list_rows(query, deadline_, listing);
    if (!all) return all.error();
    for (Snapshot& old : *all) old_.emplace(std::pair(old.config.name, old.config.vers), std::move(old));
    for (const CheckedRow& row : rows_) {
      const auto old = old_.find({name_of(row), row.row.snapshot.config.vers});
      if (old == old_.end()) continue;
      // Who replaces a pinned row must know of the pin.
      if (listing.notes_error.code == Code::busy) return listing.notes_error;
      if (options_.overwrite) continue;
      const std::string which = "the snapshot '" + name_of(row) + "' exists";
      if (old->second.pinned) return {Code::pinned, 0, "", which + " and is pinned"};
      return {Code::taken, 0, "", which};
    }
    return {};
  }

  Error check_content() {
    for (CheckedRow& row : rows_) {
      Result<CheckedRow> checked = check_row(bundle_, row.row);
      if (!checked) return checked.error();
      row = std::move(*checked);
    }
    return {};
  }

  Error store() {
    if (rows_.empty()) return {};
    Result<StorageWriter> writer = StorageWriter::open(deadline_);
    if (!writer) return writer.error();
    prepare_notes();
    const auto store_all = [&] {
      for (std::size_t i = 0; i < rows_.size(); ++i) {
        if (Error stored = store_row(rows_[i], notes_[i], *writer); stored.code != Code::ok) return stored;
      }
      return early_notes_.write(notes_);
    };
    Error error = writer->in_transaction(store_all, notes_.back().snapshot);
    if (error.code != Code::ok) early_notes_.take_back(error);
    return error;
  }

  /// What is wrong with a note is found afterwards.
  void prepare_notes() {
    for (const CheckedRow& row : rows_) {
      NewNote kept;
      kept.snapshot = row.row.snapshot;
      kept.snapshot.config.name = name_of(row);
      if (Result<Note> note = bundle_.note(row.row.snapshot)) kept.note = std::move(*note);
      notes_.push_back(std::move(kept));
    }
    const auto is_empty = [](const NewNote& kept) { return kept.note.is_empty(); };
    if (!std::all_of(notes_.begin(), notes_.end(), is_empty)) early_notes_.open();
  }

  Error store_row(const CheckedRow& row, NewNote& kept, StorageWriter& writer) {
    const Config& config = kept.snapshot.config;
    const Result<std::optional<int64>> replaced = writer.make_room(
        {config.name, config.vers}, [&](const Snapshot& old) { return ask_for_the_pin(old, kept); });
    if (!replaced) return replaced.error();
    RowToCopy copy;
    if (*replaced) {
      const Result<std::optional<int64>> above = writer.id_above(**replaced);
      if (!above) return above.error();
      copy.id = *above;
    }
    copy.rowid = row.row.rowid;
    copy.name = config.name;
    copy.digests = &row.archives;
    const Result<int64> id = copy_row(bundle_.database(), copy, writer.database());
    if (!id) return bundle_.explain(id.error());
    kept.snapshot.id = *id;
    kept.replaced = replaced->value_or(0);
    return {};
  }

  /// Within the transaction: another program may have stored the old row meanwhile.
  Error ask_for_the_pin(const Snapshot& old, NewNote& kept) {
    const std::string which = "snapshot '" + kept.snapshot.config.name + "'";
    if (!options_.overwrite) return {Code::taken, 0, "", "the " + which + " exists"};
    const Result<bool> found = is_pinned(old, deadline_);
    if (!found && found.error().code == Code::busy) return found.error();
    if (!found) {
      imported_.warnings.push_back("if the old " + which +
                                   " was pinned, the new one is not: " + sentence(found.error()));
      return {};
    }
    kept.keeps_pin = *found;
    kept.note.pinned = kept.note.pinned || *found;
    return {};
  }

  /// The row is stored: from here on a failure is a warning.
  void keep_notes(const CheckedRow& row, NewNote& kept) {
    const Error error = write_notes(row, kept);
    const bool is_kept = error.code == Code::ok || early_notes_.has(kept.snapshot);
    if (error.code != Code::ok) {
      imported_.warnings.push_back(
          (is_kept ? "the list of files of '" : "the comment, the pin and the list of files of '") +
          kept.snapshot.config.name + (is_kept ? "' was not kept: " : "' were not kept: ") +
          sentence(error));
    }
    if (!is_kept) return;
    kept.snapshot.comment = kept.note.comment;
    kept.snapshot.author = kept.note.author;
    kept.snapshot.pinned = kept.note.pinned;
  }

  Error write_notes(const CheckedRow& row, NewNote& kept) {
    Result<RowNotes> found = notes_of(bundle_, row);
    if (!found) return found.error();
    found->note.pinned = found->note.pinned || kept.keeps_pin;
    kept.note = std::move(found->note);
    const Note& note = kept.note;
    if (note.is_empty() && !found->manifest && kept.replaced == 0) return {};
    Result<Notes*> notes = early_notes_.afterwards();
    if (!notes) return notes.error();
    return found->manifest
               ? (*notes)->replace_manifest(kept.snapshot, note, *found->manifest, kept.replaced)
               : replace_note(**notes, kept.snapshot, note, kept.replaced);
  }

  static Error replace_note(Notes& notes, const Snapshot& stored, const Note& note, int64 replaced) {
    Error error = replaced != 0 ? notes.forget(replaced) : Error{};
    if (error.code != Code::ok) return error;
    return notes.change(stored, [&note](Note& changed) { changed = note; });
  }

  std::string name_of(const CheckedRow& row) const {
    return options_.name.value_or(row.row.snapshot.config.name);
  }

  Bundle bundle_;
  const ImportOptions& options_;
  const Deadline& deadline_;
  std::vector<CheckedRow> rows_;
  std::map<std::pair<std::string, int64>, Snapshot> old_;  ///< what was stored before
  EarlyNotes early_notes_{deadline_};
  std::vector<NewNote> notes_;  ///< as many as rows
  Imported imported_;
};

Error check(const ImportOptions& options) {
  if (options.version && !options.pattern) {
    return {Code::bad_argument, 0, "", "a version without a pattern chooses nothing"};
  }
  Error error = options.pattern ? check_pattern(*options.pattern) : Error{};
  if (error.code == Code::ok && options.name) error = check_id({*options.name});
  return error;
}

Result<Imported> import_file(const std::string& file, const ImportOptions& options,
                             const Deadline& deadline) {
  const Result<Lock> lock = Lock::take("an import", deadline);
  if (!lock) return lock.error();
  if (Error error = recover_first(deadline); error.code != Code::ok) return error;
  Result<Bundle> bundle = Bundle::open(file, deadline);
  if (!bundle) return bundle.error();
  Result<Imported> imported = Importing(std::move(*bundle), options, deadline).run();
  keep_summary();
  return imported;
}

/// `shown` is the name that the caller knows the file by.
Result<Imported> import_and_log(const std::string& file, const std::string& shown,
                                const ImportOptions& options) {
  Result<Imported> imported = import_file(file, options, Deadline(options.wait));
  const AuditFields from = {{"file", printable(shown)}};
  if (!imported) {
    Error error = imported.error();
    if (error.path == file) error.path = shown;
    audit("import", Id{options.name.value_or(options.pattern.value_or("")), options.version.value_or(0)},
          error, from);
    return error;
  }
  for (const Snapshot& snapshot : imported->snapshots) audit("import", snapshot, "ok", from);
  return imported;
}

Error write(const Supply& supply, const std::string& file) {
  const Descriptor opened = beside_streams(Descriptor(open(file.c_str(), O_WRONLY | O_CLOEXEC)));
  if (!opened) return system_error(file);
  for (;;) {
    Result<std::string_view> piece = supply();
    if (!piece) return piece.error();
    if (piece->empty()) return {};
    while (!piece->empty()) {
      const ssize_t size = ::write(opened.get(), piece->data(), piece->size());
      if (size < 0) return system_error(file);
      piece->remove_prefix(static_cast<std::size_t>(size));
    }
  }
}

Result<Imported> import_supply(const Supply& supply, const ImportOptions& options) {
  Error error = check_supply(supply);
  if (error.code == Code::ok) error = check(options);
  if (error.code != Code::ok) return error;
  Result<NewFile> made = NewFile::make(temporary_directory() + "/");
  if (!made) return made.error();
  error = write(supply, made->name());
  if (error.code != Code::ok) return error;
  return import_and_log(made->name(), "-", options);
}

}  // namespace

Result<Imported> import_from(const std::string& file, const ImportOptions& options) {
  return at_boundary([&]() -> Result<Imported> {
    Error error = check_path(file);
    if (error.code == Code::ok) error = check(options);
    if (error.code != Code::ok) return error;
    return import_and_log(file, file, options);
  });
}

Result<Imported> import_from(const Supply& supply, const ImportOptions& options) {
  return at_boundary([&] { return import_supply(supply, options); });
}

}  // namespace ConfSave::snapshots
