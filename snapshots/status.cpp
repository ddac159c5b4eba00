// status: what needs attention. Writes nothing.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

#include "contents.h"
#include "places.h"
#include "snapshots/access.h"
#include "snapshots/boundary.h"
#include "snapshots/dated_name.h"
#include "snapshots/leftovers.h"
#include "snapshots/notes.h"
#include "snapshots/recover.h"
#include "snapshots/sentence.h"
#include "snapshots/summary.h"
#include "snapshots/system_error.h"

namespace ConfSave::snapshots {
namespace {

constexpr int64 kDay = 86400;

void check_age(const std::string& what, int64 newest, Status& status) {
  const auto now = static_cast<int64>(std::time(nullptr));
  if (newest > now + kDay) {
    // It would hide for years that nothing is saved any more.
    status.attention.push_back({"stale", "the newest " + what +
                                             " is dated more than a day ahead of the "
                                             "clock, so its age is unknown: set the clock, or delete what "
                                             "'confsave list --sort saved' shows last"});
    return;
  }
  const int64 age = now - newest;
  if (age <= std::chrono::seconds(kStaleAfter).count()) return;
  status.attention.push_back(
      {"stale", "the newest " + what + " is " + std::to_string(age / kDay) + " days old"});
}

void look_at_ages(Status& status) {
  if (status.snapshots == 0) {
    const std::string storage = storage_file();
    const bool is_there = may_access(storage, F_OK);
    // Another directory than that of yesterday looks like a gateway that was never saved.
    status.attention.push_back(
        {"stale", "there is no snapshot" + (is_there ? "" : ": " + quoted(storage) + " does not exist")});
  } else {
    check_age("snapshot", status.newest, status);
  }
  // A gateway without autosaves may have other habits.
  if (status.newest_autosave != 0) check_age("autosave", status.newest_autosave, status);
}

std::string text_of(const Pending& pending) {
  const std::string restore = "the restore of " + quoted(pending.name);
  if (pending.is_checked) return restore + " waits for its check";
  if (pending.seconds_left == 0) return restore + " was not confirmed in time: run 'confsave revert'";
  return restore + " is taken back at " + local_time(pending.deadline) +
         " unless 'confsave confirm' keeps it";
}

/// A journal that cannot be read may hide one. Only who holds its lock is waited for, and reported.
Error look_for_a_restore(const Deadline& deadline, Status& status) {
  const Result<std::optional<Unfinished>> found = unfinished(ReadOptions{deadline.left()});
  if (!found) {
    const Code code = found.error().code;
    if (code == Code::busy || code == Code::denied) return found.error();
    status.attention.push_back({"interrupted", sentence(found.error())});
    return {};
  }
  const Result<std::optional<Pending>> waiting = pending(ReadOptions{deadline.left()});
  if (!waiting) {
    status.attention.push_back({"pending", sentence(waiting.error())});
  } else if (*waiting) {
    status.attention.push_back({"pending", text_of(**waiting)});
  } else if (*found && !(*found)->is_pending) {
    const Result<std::optional<Record>> record = read_record(deadline);
    if (!record) return record.error();
    const std::string text = *record ? interruption(**record) + ": run 'confsave recover'" : "";
    if (!text.empty()) status.attention.push_back({"interrupted", text});
  }
  return {};
}

void look_for_leftovers(const Deadline& deadline, Status& status) {
  for (const std::string& path : leftovers(deadline)) {
    const bool is_staging = path.find("/.confsave-restore-") != std::string::npos;
    status.attention.push_back(
        {"leftovers", quoted(path) + (is_staging ? " may hold files that a restore has set aside: look at "
                                                   "them, then remove it"
                                                 : " is left from a process that was killed: remove it")});
  }
}

void look_for_failover_files(Status& status) {
  for (const ContentsEntry& entry : contents()) {
    if (entry.base != Base::failover) continue;
    const std::string path = kFailoverDirectory + entry.path;
    struct stat found = {};
    if (stat(path.c_str(), &found) == 0) continue;
    status.attention.push_back({"failover-missing", quoted(path) + ": " + std::strerror(errno)});
  }
}

void look_for_readers(Status& status) {
  const std::string storage = storage_file();
  for (const std::string& path : {state_directory(), storage, storage + "-journal",
                                  state_directory() + "/notes.db", temporary_directory()}) {
    struct stat found = {};
    constexpr mode_t kOthers = S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    if (stat(path.c_str(), &found) != 0 || (found.st_mode & kOthers) == 0) continue;
    status.attention.push_back(
        {"readable", quoted(path) + " is open to other users: remove their rights by chmod go-rwx"});
  }
}

/// Locked ones are being written.
void look_for_notes(const Deadline& deadline, Status& status) {
  const Error error = look_at_notes(deadline);
  if (error.code == Code::ok || error.code == Code::busy) return;
  status.attention.push_back({"readable", quoted(error.path) + " cannot be read, so that comments and " +
                                              "pins are not known: " + error.text});
}

/// Who can write in a directory that is restored into can put a link or files of their own there.
void look_for_writers(Status& status) {
  std::set<std::string> directories;
  for (const ContentsEntry& entry : contents()) {
    const std::string path =
        (entry.base == Base::failover ? kFailoverDirectory : config_directory()) + entry.path;
    directories.insert(path.substr(0, path.rfind('/')));
  }
  for (const std::string& path : directories) {
    struct stat found = {};
    if (stat(path.c_str(), &found) != 0 || (found.st_mode & (S_IWGRP | S_IWOTH)) == 0) continue;
    status.attention.push_back(
        {"readable", quoted(path) + " can be written by other users: remove that right by chmod go-w"});
  }
}

Error look_at_space(int64 largest, Status& status) {
  struct statvfs disk = {};
  if (statvfs(state_directory().c_str(), &disk) != 0) return system_error(state_directory());
  status.free_bytes = static_cast<int64>(disk.f_bavail * disk.f_frsize);
  struct stat storage = {};
  if (stat(storage_file().c_str(), &storage) == 0) status.storage_bytes = storage.st_size;
  const int64 needed = std::max(kLeastRoom, 3 * largest);
  if (status.free_bytes >= needed) return {};
  status.attention.push_back({"space", quoted(state_directory()) + " has " +
                                           std::to_string(status.free_bytes) + " bytes of room; " +
                                           std::to_string(needed) + " are needed for the next saves"});
  return {};
}

Result<Status> look(const ReadOptions& options) {
  const Deadline deadline(options.wait);
  const Result<Summary> summary = summarize(deadline);
  if (!summary) return summary.error();
  Status status;
  status.snapshots = summary->snapshots;
  status.newest = summary->newest;
  status.newest_autosave = summary->newest_autosave;
  if (Error error = look_for_a_restore(deadline, status); error.code != Code::ok) return error;
  look_for_leftovers(deadline, status);
  look_for_failover_files(status);
  look_for_readers(status);
  look_for_notes(deadline, status);
  look_for_writers(status);
  look_at_ages(status);
  if (Error error = look_at_space(summary->largest, status); error.code != Code::ok) return error;
  return status;
}

}  // namespace

Result<Status> status(const ReadOptions& options) {
  return at_boundary([&] { return look(options); });
}

}  // namespace ConfSave::snapshots
