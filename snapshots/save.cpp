// save: packs, proves, stores, and keeps what belongs to it beside the storage.

#include <ctime>
#include <optional>

#include "places.h"
#include "snapshots/arguments.h"
#include "snapshots/audit.h"
#include "snapshots/author.h"
#include "snapshots/boundary.h"
#include "snapshots/compare.h"
#include "snapshots/database_logs.h"
#include "snapshots/early_notes.h"
#include "snapshots/listing.h"
#include "snapshots/lock.h"
#include "snapshots/missing.h"
#include "snapshots/proof.h"
#include "snapshots/reserve.h"
#include "snapshots/sentence.h"
#include "snapshots/storage_writer.h"
#include "snapshots/summary.h"
#include "snapshots/text.h"
#include "snapshots/under_lock.h"

namespace ConfSave::snapshots {
namespace {

/// The packet filter keeps its own snapshot under this name.
constexpr const char* kPacketFilter = "corlu-config";

class Saving {
 public:
  Saving(const Id& id, const SaveOptions& options, const Deadline& deadline, const Snapshot* agreed)
      : id_(id), options_(options), deadline_(deadline), agreed_(agreed) {}

  Result<Saved> run() {
    const Result<bool> is_unchanged = look_around();
    if (!is_unchanged) return is_unchanged.error();
    if (*is_unchanged) {
      warn_of_logs();
      return saved_;
    }
    if (Error error = check_overwriting(); error.code != Code::ok) return error;
    author_ = author();
    Result<Proven> proven = pack_and_prove(options_.type, phases_);
    if (!proven) return proven.error();
    count(proven->tree);
    if (saved_.files == 0 && !options_.allow_empty) {
      return Error{Code::incomplete, 0, "", "no file of the contents exists"};
    }
    find_missing(*proven);
    warn_of_logs();
    phases_.end("missing");
    if (Error error = store(*proven); error.code != Code::ok) return error;
    phases_.end("store");
    keep_manifest(*proven);
    phases_.end("notes");
    Reserve::keep(storage_file());
    phases_.end("reserve");
    return saved_;
  }

 private:
  /// Whether the newest row equals the live configuration. The read transaction of the listing keeps others
  /// from deleting the row, and ends before the archives are packed.
  Result<bool> look_around() {
    Listing listing;
    if (Error error = find_rows(listing); error.code != Code::ok) return error;
    listing.notes.reset();
    phases_.end("list");
    if (!options_.if_changed || !newest_) return false;
    Result<bool> is_unchanged = compare_with_newest();
    phases_.end("compare with the newest");
    return is_unchanged;
  }

  /// Finds the row that would be replaced, and the newest one of the type.
  Error find_rows(Listing& listing) {
    Query query;
    query.corlu_config = true;
    query.order = Query::Order::saved;
    Result<Snapshots> all = list_rows(query, deadline_, listing);
    if (!all) return all.error();
    for (const Snapshot& snapshot : *all) {
      const Config& config = snapshot.config;
      const bool is_old = config.name == id_.name && config.vers == id_.version;
      // Another program's table can have several, which are refused when the new one is stored.
      const bool is_found = old_ && agreed_ != nullptr && is_agreed(*old_);
      if (is_old && !is_found) old_ = snapshot;
      if (config.type == options_.type && config.name != kPacketFilter) newest_ = snapshot;
    }
    rows_ = std::move(*all);
    if (old_ && must_be_known(listing.notes_error)) return listing.notes_error;
    if (listing.notes && newest_) read_manifest(*listing.notes);
    return {};
  }

  /// What it says of the newest row, as long as the notes are open.
  void read_manifest(Notes& notes) {
    Result<std::optional<ManifestReader>> manifest = notes.open_manifest(*newest_);
    if (!manifest || !*manifest) return;
    if (options_.if_changed) {
      if (Result<Tree> tree = (*manifest)->tree()) newest_tree_ = std::move(*tree);
      return;
    }
    std::set<std::string> fixed_paths;
    for (const std::string& path : absent_fixed_paths(options_.type, {})) {
      const Result<std::optional<LiveMember>> member = (*manifest)->find(path);
      if (!member) return;
      if (*member) fixed_paths.insert(path);
    }
    fixed_paths_of_newest_ = std::move(fixed_paths);
  }

  Error check_overwriting() const { return old_ ? may_replace(*old_, old_->pinned) : Error{}; }

  Error may_replace(const Snapshot& old, bool pinned) const {
    if (agreed_ == nullptr && options_.overwrite) return {};
    const std::string which = "the snapshot '" + id_.name + "'";
    if (pinned) return {Code::pinned, 0, "", which + " exists and is pinned"};
    if (agreed_ == nullptr) return {Code::taken, 0, "", which + " exists"};
    if (is_agreed(old)) return {};
    return {Code::taken, 0, "", which + " was stored anew meanwhile"};
  }

  bool is_agreed(const Snapshot& old) const {
    return old.id == agreed_->id && old.config.save_time == agreed_->config.save_time &&
           old.keybase_size == agreed_->keybase_size && old.etc_size == agreed_->etc_size;
  }

  /// Who replaces a pinned row must know of the pin. But a request to overwrite goes on without notes that
  /// cannot be read.
  bool must_be_known(const Error& error) const {
    return error.code == Code::busy || (agreed_ != nullptr && error.code != Code::ok);
  }

  /// What is damaged or changes is not equal.
  Result<bool> compare_with_newest() {
    const Id newest{newest_->config.name, newest_->config.vers};
    Saved unchanged;
    unchanged.outcome = Saved::Outcome::unchanged;
    unchanged.snapshot = *newest_;
    const EachMember count_it = [&unchanged](const Member& member) { count(member, unchanged); };
    const Result<Differences> differences =
        newest_tree_ ? compare_with_live(*newest_tree_, newest_->config.type, count_it)
                     : compare_with_live(newest, deadline_, count_it);
    if (!differences && differences.error().code == Code::busy) return differences.error();
    if (!differences || !differences->empty()) return false;
    saved_ = std::move(unchanged);
    return true;
  }

  /// At least the fixed ones. From its manifest, or else from its archives.
  Result<std::set<std::string>> paths_of_newest() const {
    if (fixed_paths_of_newest_) return *fixed_paths_of_newest_;
    std::set<std::string> paths;
    if (newest_tree_) {
      for (const auto& [path, live] : newest_tree_->members) paths.insert(path);
      return paths;
    }
    const Id newest{newest_->config.name, newest_->config.vers};
    const Result<Members> found = members(newest, ReadOptions{deadline_.left()});
    if (!found) return found.error();
    for (const Member& member : *found) paths.insert(member.path);
    return paths;
  }

  void count(const Tree& tree) {
    for (const auto& [path, live] : tree.members) count(live.member, saved_);
  }

  static void count(const Member& member, Saved& saved) {
    if (member.kind == Kind::directory) return;
    ++saved.files;
    saved.bytes += member.size;
  }

  /// What tar left out, and what the newest snapshot has and this one does not.
  void find_missing(const Proven& proven) {
    std::set<std::string> present;
    for (const auto& [path, live] : proven.tree.members) present.insert(path);
    std::set<std::string> missing = database_remains(present);
    missing.insert(proven.missing.begin(), proven.missing.end());
    const std::set<std::string> absent = absent_fixed_paths(options_.type, present);
    if (newest_ && !absent.empty()) {
      const Result<std::set<std::string>> paths = paths_of_newest();
      if (!paths) {
        saved_.warnings.push_back("it is not known which files are gone since '" +
                                  printable(newest_->config.name) + "': " + sentence(paths.error()));
      }
      for (const std::string& path : absent) {
        if (paths && paths->count(path) != 0) missing.insert(path);
      }
    }
    saved_.missing.assign(missing.begin(), missing.end());
  }

  void warn_of_logs() {
    for (std::string& warning : warnings_of_logs()) saved_.warnings.push_back(std::move(warning));
  }

  Error store(Proven& proven) {
    Result<StorageWriter> writer = StorageWriter::open(deadline_);
    if (!writer) return writer.error();
    early_notes_.open();
    NewRow row{id_.name, id_.version, options_.type, std::time(nullptr), std::move(proven.packed)};
    Result<Stored> stored = writer->store(
        std::move(row), [this](const Snapshot& old) { return ask_for_the_pin(old); },
        [this](const Stored& row_stored) { return keep_note(row_stored); });
    if (!stored) {
      early_notes_.take_back(stored.error());
      return stored.error();
    }
    saved_.outcome = stored->replaced ? Saved::Outcome::replaced : Saved::Outcome::created;
    saved_.snapshot = std::move(stored->snapshot);
    replaced_id_ = stored->replaced_id;
    return {};
  }

  /// Of the row that goes, within the transaction: another program may have stored it meanwhile.
  Error ask_for_the_pin(const Snapshot& old) {
    if (Error error = may_replace(old, false); error.code != Code::ok) return error;
    const Result<bool> pinned = is_pinned(old, deadline_);
    if (pinned) {
      note_.pinned = *pinned;
      return may_replace(old, *pinned);
    }
    if (must_be_known(pinned.error())) return pinned.error();
    saved_.warnings.push_back("if the old snapshot was pinned, the new one is not: " +
                              sentence(pinned.error()));
    return {};
  }

  /// Within the transaction.
  Error keep_note(const Stored& stored) {
    note_.comment = options_.comment;
    note_.author = author_;
    return early_notes_.write({{stored.snapshot, note_, stored.replaced_id, note_.pinned}});
  }

  /// The row is stored: from here on a failure is a warning.
  void keep_manifest(Proven& proven) {
    Parents parents = parents_of(proven.tree);
    const Error error = write_notes({std::move(proven.tree), saved_.missing, std::move(parents)});
    const bool is_kept = error.code == Code::ok || early_notes_.has(saved_.snapshot);
    if (error.code != Code::ok) {
      const std::string lost =
          is_kept ? "the list of files was" : "the comment, the author and the list of files were";
      const bool was_pinned = !is_kept && note_.pinned;
      saved_.warnings.push_back(lost + " not kept" +
                                (was_pinned ? ", and the snapshot is not pinned any more: " : ": ") +
                                sentence(error));
    }
    if (!is_kept) return;
    saved_.snapshot.comment = note_.comment;
    saved_.snapshot.author = note_.author;
    saved_.snapshot.pinned = note_.pinned;
  }

  Error write_notes(const Manifest& manifest) {
    Result<Notes*> notes = early_notes_.afterwards();
    if (!notes) return notes.error();
    Error error = (*notes)->replace_manifest(saved_.snapshot, note_, manifest, replaced_id_);
    rows_.push_back(saved_.snapshot);
    // What fails here is done by a later save.
    if (error.code == Code::ok) static_cast<void>((*notes)->sweep(rows_));
    return error;
  }

  const Id& id_;
  const SaveOptions& options_;
  const Deadline& deadline_;
  const Snapshot* agreed_;  ///< the only row that may go
  EarlyNotes early_notes_{deadline_};
  Note note_;
  std::string author_;
  Phases phases_{"save"};
  Snapshots rows_;
  std::optional<Snapshot> old_;
  std::optional<Snapshot> newest_;
  std::optional<Tree> newest_tree_;                             ///< if it is to be compared
  std::optional<std::set<std::string>> fixed_paths_of_newest_;  ///< if not
  int64 replaced_id_ = 0;
  Saved saved_;
};

Result<Saved> check_and_save(const Id& id, const SaveOptions& options, const Snapshot* agreed) {
  Error error = check_id(id);
  if (error.code == Code::ok) error = check_type(options.type);
  if (error.code == Code::ok) error = check_comment(options.comment);
  if (error.code != Code::ok) return error;
  const Deadline deadline(options.wait);
  const Result<Lock> lock = Lock::take("saving " + id.name, deadline);
  if (!lock) return lock.error();
  error = recover_before(id, deadline);
  if (error.code != Code::ok) return error;
  Result<Saved> saved = Saving(id, options, deadline, agreed).run();
  const bool is_unchanged = saved && saved->outcome == Saved::Outcome::unchanged;
  if (!is_unchanged) keep_summary();
  return saved;
}

Result<Saved> save_and_log(const Id& id, const SaveOptions& options, const Snapshot* agreed) {
  Result<Saved> saved = check_and_save(id, options, agreed);
  audit_save(id, saved);
  return saved;
}

}  // namespace

Result<Saved> save_under_lock(const Id& id, const SaveOptions& options, const Deadline& deadline) {
  return Saving(id, options, deadline, nullptr).run();
}

Result<Saved> save(const Id& id, const SaveOptions& options) {
  return at_boundary([&] { return save_and_log(id, options, nullptr); });
}

Result<Saved> save_over(const Snapshot& old, const SaveOptions& options) {
  return at_boundary([&] { return save_and_log({old.config.name, old.config.vers}, options, &old); });
}

}  // namespace ConfSave::snapshots
