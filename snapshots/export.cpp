// export_to: copies snapshots into a file that is a storage of its own.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "places.h"
#include "snapshots/access.h"
#include "snapshots/arguments.h"
#include "snapshots/boundary.h"
#include "snapshots/bundle.h"
#include "snapshots/descriptor.h"
#include "snapshots/new_file.h"
#include "snapshots/row_copy.h"
#include "snapshots/row_reader.h"
#include "snapshots/sentence.h"
#include "snapshots/system_error.h"
#include "snapshots/text.h"
#include "storage/statements.h"

namespace ConfSave::snapshots {
namespace {

/// Rows of one storage, all of the same moment.
class Exporting {
 public:
  Exporting(const Ids& ids, const Deadline& deadline) : ids_(ids), deadline_(deadline) {}

  Result<Exported> run(const std::string& file) {
    if (Error error = find_rows(); error.code != Code::ok) return error;
    if (Error error = copy_rows(file); error.code != Code::ok) return error;
    if (Error error = copy_notes(file); error.code != Code::ok) return error;
    return std::move(exported_);
  }

  /// Why the file has no notes.
  const Error& notes_error() const { return notes_error_; }

 private:
  /// Waits for SQLite's locks here, and not while a file is made.
  Error find_rows() {
    for (const Id& id : ids_) {
      Result<OpenRow> row = open_row(id, deadline_);
      if (!row) return row.error();
      exported_.snapshots.push_back(row->snapshot);
    }
    return {};
  }

  Error copy_rows(const std::string& file) {
    Result<Database> made = Database::open(file, deadline_.left());
    if (!made) return made.error();
    // The file counts only when it is whole.
    Error error = made->run(sql::kChooseLayout);
    if (error.code == Code::ok) {
      error = made->run("pragma synchronous=off; pragma journal_mode=memory; begin");
    }
    if (error.code == Code::ok) error = made->run(sql::create_table().c_str());
    if (error.code == Code::ok) error = made->run(kOriginTable);
    if (error.code == Code::ok) error = write_origin(*made);
    if (error.code != Code::ok) return error;
    if (exported_.snapshots.empty()) return made->run("commit");
    Result<std::optional<StorageReader>> storage = StorageReader::open(deadline_.left());
    if (!storage) return storage.error();
    if (!*storage) return not_found(ids_.front().name);
    error = (*storage)->begin();
    for (std::size_t i = 0; error.code == Code::ok && i < exported_.snapshots.size(); ++i) {
      error = copy((*storage)->database(), exported_.snapshots[i], *made);
    }
    return error.code == Code::ok ? made->run("commit") : error;
  }

  /// By what it was listed as: another program may have replaced it.
  static Error copy(Database& storage, const Snapshot& snapshot, Database& made) {
    RowToCopy row;
    {
      Result<Statement> found = storage.prepare(
          "select rowid from Config where id = ? and cast(name as text) = ? and "
          "ifnull(cast(version as integer), 0) = ? and ifnull(cast(save_time as integer), 0) = ?");
      if (!found) return found.error();
      found->bind(snapshot.id).bind(snapshot.config.name).bind(snapshot.config.vers);
      const int code = found->bind(snapshot.config.save_time).step();
      if (code == SQLITE_DONE) return not_found(snapshot.config.name);
      if (code != SQLITE_ROW) return storage.error();
      row.rowid = found->number(0);
    }
    row.keep_id = true;
    const Result<int64> copied = copy_row(storage, row, made);
    if (copied) return {};
    Error error = copied.error();
    // An archive's error names neither.
    if (error.path.empty()) {
      error.path = storage.file();
      error.text.insert(0, "'" + printable(snapshot.config.name) + "': ");
    }
    return error;
  }

  static Error write_origin(Database& made) {
    Result<Statement> insert = made.prepare("insert into origin (configuration) values (?)");
    if (!insert) return insert.error();
    return insert->bind(config_directory()).run() ? Error{} : made.error();
  }

  /// Notes that cannot be read keep nobody from exporting what is more important.
  Error copy_notes(const std::string& file) {
    Result<Database> made = Database::open(file, deadline_.left());
    if (!made) return made.error();
    Error ready = made->run("pragma synchronous=off; pragma journal_mode=memory");
    if (ready.code != Code::ok) return ready;
    Result<Notes> copies = Notes::make_in(std::move(*made));
    if (!copies) return copies.error();
    Result<std::optional<Notes>> notes = Notes::open(deadline_.left());
    if (notes && !*notes) {
      notes_error_ = system_error(state_directory() + "/notes.db", ENOENT);
      return {};
    }
    Error error;
    if (!notes) error = notes.error();
    if (notes) {
      const Result<std::map<int64, Note>> found = (*notes)->read(exported_.snapshots);
      if (!found) error = found.error();
      for (std::size_t i = 0; found && i < exported_.snapshots.size(); ++i) {
        if (Error failure = copy_note(**notes, *found, exported_.snapshots[i], *copies, error);
            failure.code != Code::ok) {
          return failure;
        }
      }
    }
    if (error.code != Code::ok) {
      exported_.warnings.push_back("comments, pins and manifests are not in the file: " + sentence(error));
    }
    notes_error_ = std::move(error);
    return {};
  }

  /// Sets `unread` if the notes could not be read; returns what went wrong with the copy.
  static Error copy_note(Notes& notes, const std::map<int64, Note>& all, Snapshot& snapshot, Notes& copies,
                         Error& unread) {
    const auto found = all.find(snapshot.id);
    const Note note = found != all.end() ? found->second : Note{};
    snapshot.comment = note.comment;
    snapshot.author = note.author;
    snapshot.pinned = note.pinned;
    const Result<std::optional<Manifest>> manifest = notes.manifest(snapshot);
    if (!manifest) unread = manifest.error();
    if (manifest && *manifest) return copies.replace_manifest(snapshot, note, **manifest);
    if (found == all.end()) return {};
    return copies.change(snapshot, [&note](Note& copy) { copy = note; });
  }

  const Ids& ids_;
  const Deadline& deadline_;
  Exported exported_;
  Error notes_error_;
};

/// Whether this file is a copy with comments and pins, perhaps the last one.
bool has_notes(const std::string& file, const Deadline& deadline) {
  Result<Database> copy = Database::open_read_only(file, deadline.left());
  if (!copy) return false;
  Result<Statement> note = copy->prepare("select 1 from note where comment <> '' or pinned");
  return note && note->step() == SQLITE_ROW;
}

Result<Exported> export_into_file(const Ids& ids, const std::string& file, const ExportOptions& options) {
  Error error = check_ids(ids);
  if (error.code == Code::ok) error = check_destination(file, options.overwrite);
  if (error.code != Code::ok) return error;
  const Deadline deadline(options.wait);
  Result<NewFile> made = NewFile::make(directory_part(file) + ".confsave-export-");
  if (!made) return made.error();
  Exporting exporting(ids, deadline);
  Result<Exported> exported = exporting.run(made->name());
  if (!exported) {
    error = exported.error();
    if (error.path == made->name()) error.path = file;
    return error;
  }
  if (exists(file) && has_notes(file, deadline)) {
    error = exporting.notes_error();
    if (error.code == Code::busy) return error;
    if (error.code != Code::ok) {
      return Error{Code::bad_argument, 0, file,
                   "this copy holds comments and pins, which cannot be read now: " + sentence(error)};
    }
  }
  error = made->publish(file, options.overwrite, exported->warnings);
  if (error.code != Code::ok) return error;
  return exported;
}

/// The file has no name any more while the sink is at work: what ends the process there, as a pipe without
/// a reader does, leaves no copy of the keys.
Error pass(NewFile& made, const Sink& sink) {
  const std::string file = made.name();
  const Descriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!opened) return system_error(file);
  made.remove();
  std::string buffer(128 << 10, '\0');
  for (;;) {
    const ssize_t size = read(opened.get(), buffer.data(), buffer.size());
    if (size < 0) return system_error(file);
    if (size == 0) return {};
    Error error = sink({buffer.data(), static_cast<std::size_t>(size)});
    if (error.code != Code::ok) return error;
  }
}

Result<Exported> export_into_sink(const Ids& ids, const Sink& sink, const ReadOptions& options) {
  Error error = check_sink(sink);
  if (error.code == Code::ok) error = check_ids(ids);
  if (error.code != Code::ok) return error;
  const Deadline deadline(options.wait);
  Result<NewFile> made = NewFile::make(temporary_directory() + "/");
  if (!made) return made.error();
  Result<Exported> exported = Exporting(ids, deadline).run(made->name());
  if (!exported) {
    error = exported.error();
    // Nobody will find that file.
    if (error.path == made->name()) error.path = temporary_directory();
    return error;
  }
  error = pass(*made, sink);
  if (error.code != Code::ok) return error;
  return exported;
}

}  // namespace

Result<Exported> export_to(const Ids& ids, const std::string& file, const ExportOptions& options) {
  return at_boundary([&] { return export_into_file(ids, file, options); });
}

Result<Exported> export_to(const Ids& ids, const Sink& sink, const ReadOptions& options) {
  return at_boundary([&] { return export_into_sink(ids, sink, options); });
}

}  // namespace ConfSave::snapshots
