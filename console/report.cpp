#include "report.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>

#include "exit_status.h"
#include "interrupt.h"
#include "text.h"
#include "values.h"

namespace console {
namespace {

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool is_absolute(const std::string& path) { return !path.empty() && path.front() == '/'; }

/// A directory that was set, and not a member of an archive; only the text of the error tells.
bool is_relative_directory(const cs::Error& error) {
  return error.code == cs::Code::unsafe && error.text.rfind("the path is not absolute", 0) == 0;
}

std::string step_for_unsafe(const cs::Error& error) {
  if (is_relative_directory(error)) return "Set an absolute one: see ENVIRONMENT in confsave(1)";
  return is_absolute(error.path) ? "Put a plain file or directory there, or use another path"
                                 : "'confsave verify --all' says which snapshots are whole";
}

std::string step_for_denied(const cs::Error& error) {
  if (error.number == EROFS) return "Make the file system writable, or use another directory";
  const bool is_forbidden = error.number == EPERM || (error.number & 0xff) == SQLITE_READONLY;
  return is_forbidden && geteuid() == 0 ? "lsattr(1) shows whether the file is immutable"
                                        : "Run confsave as the owner of the file";
}

std::string step_for_storage(const cs::Error& error) {
  if (error.number == ENOENT)
    return "Make the directory, or use another one: see ENVIRONMENT in confsave(1)";
  switch (error.number & 0xff) {
    case EACCES:
    case SQLITE_CANTOPEN:
      return "Run confsave as the owner of the file";
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return "What can still be read can be imported: see DIAGNOSTICS in confsave(1)";
    default:
      return "Move it away, or use another directory: see ENVIRONMENT in confsave(1)";
  }
}

std::string step_for_pending() {
  const auto found = cs::pending();
  if (found && *found && (*found)->is_checked) return "Try again when the check has ended";
  if (found && *found && (*found)->seconds_left == 0)
    return "The next verb that changes something does that";
  return "'confsave confirm' keeps it, 'confsave revert' takes it back";
}

std::string next_step(const cs::Error& error, bool waits) {
  using cs::Code;
  if (may_be_done(error)) return "Mend that, and see with 'confsave list' what is stored";
  switch (error.code) {
    case Code::bad_argument:
      return "Give another one";
    case Code::not_found:
      return "'confsave list' lists what is stored";
    case Code::ambiguous:
      return "Delete all but one of them by their ids, with sqlite3(1)";
    case Code::taken:
      return "Give --force to overwrite it";
    case Code::pinned:
      return "Unpin it, or give --force";
    case Code::busy:
      if (interrupted()) return "The wait was interrupted";
      return waits ? "Try again later, or wait longer with --wait" : "Try again later";
    case Code::incomplete:
      return "Give --force to store it all the same";
    case Code::damaged:
      return "'confsave verify --all' says which snapshots are whole";
    case Code::unsafe:
      return step_for_unsafe(error);
    case Code::changed_meanwhile:
      return "Try again when no program changes it";
    case Code::denied:
      return step_for_denied(error);
    case Code::no_space:
      return "Free some space and try again";
    case Code::no_storage:
      return step_for_storage(error);
    case Code::newer:
      return "Give --force to restore it all the same";
    case Code::pending:
      return step_for_pending();
    case Code::check_failed:
      return "Mend the snapshot or the check, and try again";
    case Code::needs_attention:
      // The text of an interrupted restore, and of a journal that cannot be read, says what to do.
      return "";
    default:
      if (error.number == ENOENT && ends_with(error.path, "/")) return "Make the directory and try again";
      return "Mend that and try again";
  }
}

bool is_special(const std::string& file) {
  struct stat status = {};
  return stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

/// What --force would do besides is named, too. Empty when the content of the file is the matter.
std::string step_for_import(const cs::Error& error, const std::string& file, bool is_one) {
  using cs::Code;
  switch (error.code) {
    case Code::newer:
      return is_one ? "Give --force to store it all the same; a stored snapshot of its name and version is "
                      "overwritten then"
                    : "--force stores it all the same, and overwrites stored snapshots of the same names, "
                      "pinned ones too. Give NAME to import one only";
    case Code::taken:
    case Code::pinned:
      return is_one ? "Give --force to overwrite it, or another name by --as"
                    : "Give --force to overwrite all that exist, or NAME to import one, under another name "
                      "with --as";
    case Code::ambiguous:
      // Those of the file, or those of the storage.
      return error.path.empty() ? next_step(error, true) : "Choose one by NAME@VERSION";
    case Code::failed:
      return error.path == file && is_special(file) ? "Give - to read from standard input" : "";
    case Code::busy:
    case Code::denied:
    case Code::no_space:
    case Code::no_storage:
    case Code::pending:
      return next_step(error, true);
    default:
      return "";
  }
}

/// Whether what the notes hold is the matter, and not where they are.
bool is_about_notes(const cs::Error& error) {
  using cs::Code;
  switch (error.code) {
    case Code::bad_argument:
    case Code::taken:
    case Code::busy:
    case Code::no_space:
    case Code::denied:
      return false;
    default:
      return ends_with(error.path, "/notes.db");
  }
}

void print_failure(const cs::Error& error) {
  std::cout.flush();
  std::cerr << "confsave: ";
  if (!error.path.empty()) std::cerr << '\'' << readable(error.path) << "': ";
  std::cerr << readable(error.text) << '.';
}

/// An archive's error does not name its snapshot.
void name_archive(cs::Error& error, const std::string& which) {
  const bool of_archive = error.code == cs::Code::damaged || error.code == cs::Code::unsafe;
  if (!of_archive || is_absolute(error.path)) return;
  error.text.insert(0, error.path + ": ");
  error.path = which;
}

/// Each verb that changes something recovers first.
void print_mixture(const cs::Error& error) {
  if (error.aftermath != cs::Aftermath::mixed) return;
  std::cerr << " Some files are not as they were before: 'confsave recover' tries again.";
}

void print_step(const std::string& step) { std::cerr << (step.empty() ? "" : " " + step + ".") << '\n'; }

/// Nothing can mend a file of a newer version, which is not damaged.
std::string step_for_notes(const cs::Error& error) {
  return error.code == cs::Code::newer
             ? "Use that version, or move it away: without this file only comments, pins and manifests are "
               "lost"
             : "Mend it, or move it away: without this file only comments, pins and manifests are lost";
}

/// The exit statuses that say so are about the storage, and about a snapshot.
bool has_status_of_another(cs::Code code) {
  return code == cs::Code::no_storage || code == cs::Code::newer;
}

int print_report(const cs::Error& error, const std::string& step) {
  print_failure(error);
  print_mixture(error);
  const bool is_of_notes = is_about_notes(error);
  print_step(is_of_notes ? step_for_notes(error) : step);
  return is_of_notes && has_status_of_another(error.code) ? kFailed : exit_status(error.code);
}

}  // namespace

bool may_be_done(const cs::Error& error) { return error.aftermath == cs::Aftermath::perhaps_done; }

int exit_status(cs::Code code) {
  using cs::Code;
  switch (code) {
    case Code::ok:
      return kDone;
    case Code::bad_argument:
      return kUsage;
    case Code::not_found:
      return kNotFound;
    case Code::ambiguous:
      return kAmbiguous;
    case Code::no_storage:
      return kNoStorage;
    case Code::newer:
      return kNewer;
    case Code::busy:
      return kBusy;
    case Code::pending:
    case Code::needs_attention:
      return kPending;
    case Code::taken:
    case Code::pinned:
      return kRefused;
    default:
      return kFailed;
  }
}

int report(const cs::Error& error, bool waits) { return print_report(error, next_step(error, waits)); }

int report_packing(const cs::Error& error, bool may_force) {
  if (error.code == cs::Code::damaged)
    return print_report(error, "See that tar and gzip work, and try again");
  if (error.code == cs::Code::incomplete && !may_force) {
    return print_report(
        error, "See that the configuration directory is the right one, and its file system mounted");
  }
  if (error.code == cs::Code::unsafe && !is_absolute(error.path) && !is_relative_directory(error))
    return print_report(error, "Rename or remove the file and try again");
  return report(error, true);
}

std::string reason_and_step(const cs::Error& error, bool waits) {
  const std::string file = is_absolute(error.path) ? "'" + readable(error.path) + "': " : "";
  const std::string step = next_step(error, waits);
  return file + readable(error.text) + "." + (step.empty() ? "" : " " + step + ".");
}

int report_restore(const cs::Error& error) {
  print_failure(error);
  const bool mixed = error.aftermath == cs::Aftermath::mixed;
  // Without its record nothing can take the restore back.
  const bool is_recorded = error.code != cs::Code::not_pending;
  if (is_recorded) print_mixture(error);
  const bool is_not_kept = error.code == cs::Code::incomplete;
  const std::string step = is_not_kept ? "Move the file away, or give --no-keep" : next_step(error, true);
  if (!mixed && !step.empty()) {
    const bool untouched = error.aftermath == cs::Aftermath::untouched;
    std::cerr << (untouched ? " Nothing was changed. " : " Everything was put back. ") << step << '.';
  }
  if (mixed && is_recorded && error.code == cs::Code::denied) std::cerr << ' ' << step << '.';
  std::cerr << '\n';
  return exit_status(error.code);
}

int report_restore(cs::Error error, const cs::Snapshot& snapshot) {
  name_archive(error, label(snapshot));
  return report_restore(error);
}

int report_reading(cs::Error error, const std::string& which) {
  name_archive(error, which);
  return report(error);
}

int report_import(const cs::Error& error, const std::string& file, bool is_one) {
  print_failure(error);
  print_mixture(error);
  if (!may_be_done(error)) std::cerr << " Nothing was stored.";
  const std::string step =
      may_be_done(error) ? next_step(error, true) : step_for_import(error, file, is_one);
  if (!step.empty()) std::cerr << ' ' << step << '.';
  std::cerr << '\n';
  return exit_status(error.code);
}

void warn_of_notes(const cs::Error& error) {
  std::cout.flush();
  std::cerr << "confsave: warning: comments and pins are not known: '" << readable(error.path)
            << "': " << readable(error.text) << '.';
  print_step(is_about_notes(error) ? step_for_notes(error) : next_step(error, false));
}

void print_warnings(const std::vector<std::string>& warnings) {
  for (const std::string& warning : warnings) {
    std::cerr << "confsave: warning: " << readable(warning) << ".\n";
  }
}

std::string label(const std::string& name, ConfSave::int64 version) {
  return printable(name) + "@" + version_text(version);
}

std::string label(const cs::Snapshot& snapshot) {
  return label(snapshot.config.name, snapshot.config.vers);
}

Json json_id(const cs::Snapshot& snapshot) {
  Json object;
  object["id"] = snapshot.id;
  object["name"] = json_bytes(snapshot.config.name);
  object["version"] = snapshot.config.vers;
  return object;
}

}  // namespace console
