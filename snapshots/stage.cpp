// stage: writes the new files beside their destinations, unseen.

#include "snapshots/stage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "snapshots/database_logs.h"
#include "snapshots/extended_attributes.h"
#include "snapshots/old_attributes.h"
#include "snapshots/staged_file.h"
#include "snapshots/staging_error.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

constexpr uid_t kSame = static_cast<uid_t>(-1);

timespec seconds(int64 time) { return {time, 0}; }

class Staging {
 public:
  Staging(OpenRow& row, DetailedPlan& plan, std::vector<Site>& sites, const RestoreOptions& options)
      : row_(row), plan_(plan), sites_(sites), options_(options) {}

  Error run() {
    for (Site& site : sites_) {
      if (Error error = make_directory(site); error.code != Code::ok) return error;
    }
    find_sources();
    Error error = stage_others();
    if (error.code == Code::ok) error = stage_files();
    if (error.code == Code::ok) error = link_names();
    return error.code == Code::ok ? note_identities() : error;
  }

 private:
  /// One file of the snapshot, with all names of it that change.
  struct Source {
    std::vector<std::size_t> steps;
    /// A name that does not change: the others become links to it.
    const LiveMember* unchanged = nullptr;
  };

  Site& site_of(const Step& step) { return sites_[step.root]; }

  Error failure(const Step& step, int number = errno) {
    return cannot_stage(site_of(step).beneath, step.path, number);
  }

  static Error make_directory(Site& site) {
    const int root = site.beneath.root();
    // A tight umask takes rights from its owner.
    if (mkdirat(root, site.name.c_str(), S_IRWXU) != 0 ||
        fchmodat(root, site.name.c_str(), S_IRWXU, 0) != 0) {
      return site.beneath.failure(site.name, errno);
    }
    site.staging =
        Descriptor(openat(root, site.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!site.staging) return site.beneath.failure(site.name, errno);
    struct stat status = {};
    if (fstat(site.staging.get(), &status) != 0) return site.beneath.failure(site.name, errno);
    if (status.st_uid != geteuid()) return site.beneath.failure(site.name, EPERM);
    // What it inherits from its parent would be inherited in it.
    const bool is_private =
        remove_access_lists(site.staging.get()) && fchmod(site.staging.get(), S_IRWXU) == 0;
    return is_private ? check_inodes(site, status.st_dev) : site.beneath.failure(site.name, errno);
  }

  /// Makes a file and deletes it: its device must be that of the directory. A sweep deletes it after a
  /// kill.
  static Error check_inodes(const Site& site, dev_t device) {
    const char* const name = "0";
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const Descriptor file(openat(site.staging.get(), name, flags, S_IRUSR | S_IWUSR));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0 || unlinkat(site.staging.get(), name, 0) != 0) {
      return site.beneath.failure(site.name, errno);
    }
    return status.st_dev == device ? Error{} : no_lasting_inode(site.beneath.shown(""));
  }

  void find_sources() {
    for (std::size_t number = 0; number < plan_.steps.size(); ++number) {
      const PlannedStep& planned = plan_.steps[number];
      if (planned.step.what != Step::What::put || planned.wanted->member.kind != Kind::file) continue;
      sources_[planned.wanted->base][planned.wanted->entry].steps.push_back(number);
    }
    std::set<std::string> changed;
    for (const PlannedChange& change : plan_.shown.changes) changed.insert(change.difference.path);
    for (const auto& [path, wanted] : plan_.wanted) {
      if (wanted.member.kind != Kind::file || changed.count(path) != 0) continue;
      const auto source = sources_[wanted.base].find(wanted.entry);
      if (source == sources_[wanted.base].end() || source->second.unchanged != nullptr) continue;
      const auto live = plan_.live.find(path);
      // The plan has seen to it that no other name of its inode changes.
      if (live != plan_.live.end()) source->second.unchanged = &live->second;
    }
  }

  /// Directories and symbolic links.
  Error stage_others() {
    for (std::size_t number = 0; number < plan_.steps.size(); ++number) {
      const PlannedStep& planned = plan_.steps[number];
      if (planned.step.what != Step::What::put) continue;
      const Member& member = planned.wanted->member;
      Error error;
      if (member.kind == Kind::directory) error = stage_directory(planned.step, std::to_string(number));
      if (member.kind == Kind::symlink) error = stage_link(planned.step, member, std::to_string(number));
      if (error.code != Code::ok) return error;
    }
    return {};
  }

  Error stage_directory(const Step& step, const std::string& slot) {
    const int staging = site_of(step).staging.get();
    const bool done =
        mkdirat(staging, slot.c_str(), S_IRWXU) == 0 && fchmodat(staging, slot.c_str(), S_IRWXU, 0) == 0;
    return done ? Error{} : failure(step);
  }

  Error stage_link(const Step& step, const Member& member, const std::string& slot) {
    const int staging = site_of(step).staging.get();
    const timespec times[] = {seconds(member.time), seconds(member.time)};
    const bool done = symlinkat(member.target.c_str(), staging, slot.c_str()) == 0 &&
                      (geteuid() != 0 ||
                       fchownat(staging, slot.c_str(), member.uid, member.gid, AT_SYMLINK_NOFOLLOW) == 0) &&
                      utimensat(staging, slot.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
    return done ? Error{} : failure(step);
  }

  /// Reads the archives again, as far as the plan has not left what there is to stage.
  Error stage_files() {
    for (const Column& column : columns_of(row_.snapshot.config.type)) {
      const auto sources = sources_.find(column.base);
      if (sources == sources_.end()) continue;
      Error error = is_decoded(column.base, sources->second) ? stage_decoded(column.base, sources->second)
                                                             : stage_column(column, sources->second);
      if (error.code != Code::ok) return error;
    }
    return {};
  }

  bool is_decoded(Base base, const std::map<int64, Source>& sources) const {
    return std::all_of(sources.begin(), sources.end(), [&](const auto& source) {
      return source.second.unchanged != nullptr || plan_.decoded.find(base, source.first) != nullptr;
    });
  }

  Error stage_decoded(Base base, const std::map<int64, Source>& sources) {
    for (const auto& [entry, source] : sources) {
      if (source.unchanged != nullptr) continue;
      const std::size_t number = source.steps.front();
      const PlannedStep& planned = plan_.steps[number];
      StagedFile file(site_of(planned.step).staging.get(), std::to_string(number));
      if (!file || !file.add(*plan_.decoded.find(base, entry))) return failure(planned.step);
      if (Error error = finish_file(planned, file); error.code != Code::ok) return error;
    }
    return {};
  }

  Error stage_column(const Column& column, std::map<int64, Source>& sources) {
    int64 count = -1;
    const PlannedStep* current = nullptr;
    std::optional<StagedFile> file;
    const auto begin = [&](const Entry&) -> Error {
      const auto source = sources.find(++count);
      if (source == sources.end() || source->second.unchanged != nullptr) return {};
      const std::size_t number = source->second.steps.front();
      current = &plan_.steps[number];
      file.emplace(site_of(current->step).staging.get(), std::to_string(number));
      return *file ? Error{} : failure(current->step);
    };
    const auto content = [&](std::string_view piece) -> Error {
      if (!file || file->add(piece)) return {};
      return failure(current->step);
    };
    const auto end = [&]() -> Error {
      if (!file) return {};
      Error error = finish_file(*current, *file);
      file.reset();
      return error;
    };
    return read_column(row_, column, {begin, content, end}, progress());
  }

  PackedProgress progress() {
    if (!options_.progress) return {};
    return [this](int64 packed) {
      progress_.phase = Progress::Phase::staging;
      progress_.total = row_.snapshot.keybase_size + row_.snapshot.etc_size;
      progress_.done += packed;
      options_.progress(progress_);
    };
  }

  /// The order matters: a new owner clears the set-id bits, and the mode limits what access lists grant.
  Error finish_file(const PlannedStep& planned, StagedFile& file) {
    const Step& step = planned.step;
    const Member& member = planned.wanted->member;
    // Each reading ends with the checksum of the archive.
    if (file.size() != member.size) {
      return {Code::damaged, 0, printable(member.path), "the archive does not read the same twice"};
    }
    if (!file.finish()) return failure(step);
    const bool is_root = geteuid() == 0;
    const int owned = fchown(file.get(), is_root ? member.uid : kSame, member.gid);
    if (owned != 0 && is_root) return failure(step);
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) return failure(step);
    if (Error error = carry_over(planned, file.get()); error.code != Code::ok) return error;
    const timespec times[] = {seconds(member.time), seconds(member.time)};
    const bool done = fchmod(file.get(), mode_for(member, status.st_uid, status.st_gid)) == 0 &&
                      futimens(file.get(), times) == 0;
    return done ? Error{} : failure(step);
  }

  Error carry_over(const PlannedStep& planned, int file) {
    if (!S_ISREG(planned.step.before.kind)) return {};
    const bool may_be_locked = locked_paths_.count(planned.step.path) != 0;
    const Result<ExtendedAttributes> attributes =
        attributes_of_old(planned, site_of(planned.step).beneath, may_be_locked);
    if (!attributes) return attributes.error();
    return set_extended_attributes(file, *attributes) ? Error{} : failure(planned.step);
  }

  /// The other names of a file.
  Error link_names() {
    for (auto& [base, sources] : sources_) {
      for (auto& [entry, source] : sources) {
        if (Error error = link_names_of(source); error.code != Code::ok) return error;
      }
    }
    return {};
  }

  Error link_names_of(const Source& source) {
    for (const std::size_t number : source.steps) {
      const Step& step = plan_.steps[number].step;
      const bool is_file = number == source.steps.front() && source.unchanged == nullptr;
      if (is_file) continue;
      Error error = source.unchanged != nullptr ? link_to_live(step, number, *source.unchanged)
                                                : link_to_slot(step, number, source.steps.front());
      if (error.code != Code::ok) return error;
    }
    return {};
  }

  Error link_to_slot(const Step& step, std::size_t number, std::size_t first) {
    const int from = site_of(plan_.steps[first].step).staging.get();
    const int to = site_of(step).staging.get();
    const bool done =
        linkat(from, std::to_string(first).c_str(), to, std::to_string(number).c_str(), 0) == 0;
    return done ? Error{} : failure(step);
  }

  Error link_to_live(const Step& step, std::size_t number, const LiveMember& live) {
    Site& site = site_of(step);
    const std::string relative = live.member.path.substr(site.beneath.path().size());
    const Result<int> parent = site.beneath.directory(parent_of(relative));
    if (!parent) return parent.error();
    const std::string slot = std::to_string(number);
    struct stat status = {};
    const bool done =
        linkat(*parent, name_of(relative).c_str(), site.staging.get(), slot.c_str(), 0) == 0 &&
        fstatat(site.staging.get(), slot.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!done && !is_gone(errno)) return failure(step);
    const bool is_it = done && status.st_ino == live.stamp.inode && status.st_size == live.stamp.size &&
                       stamp_of(status).modified == live.stamp.modified;
    return is_it ? Error{} : changed_while_staged(printable(live.member.path));
  }

  Error note_identities() {
    std::map<std::pair<std::size_t, std::string>, Identity> directories;
    for (std::size_t number = 0; number < plan_.steps.size(); ++number) {
      Step& step = plan_.steps[number].step;
      if (step.what == Step::What::attributes) step.old_access = access_list_of(step);
      if (step.what != Step::What::put) continue;
      struct stat status = {};
      const int staging = site_of(step).staging.get();
      if (fstatat(staging, std::to_string(number).c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return failure(step);
      }
      step.after = identity_of(status);
      step.fresh = {status.st_mode & 07777U, status.st_uid, status.st_gid};
      if (S_ISDIR(status.st_mode)) directories[{step.root, step.path}] = step.after;
    }
    for (PlannedStep& planned : plan_.steps) {
      Step& step = planned.step;
      const auto made = directories.find({step.root, step.path});
      if (step.what == Step::What::attributes && made != directories.end()) step.after = made->second;
    }
    return {};
  }

  /// Of a directory that is there; one that is not has none.
  std::string access_list_of(const Step& step) {
    const Result<int> directory = site_of(step).beneath.directory(step.path);
    return directory ? access_list(*directory) : "";
  }

  OpenRow& row_;
  DetailedPlan& plan_;
  std::vector<Site>& sites_;
  const RestoreOptions& options_;
  const std::set<std::string> locked_paths_ = locked_paths();
  std::map<Base, std::map<int64, Source>> sources_;  ///< by the entry of the archive
  Progress progress_;
};

}  // namespace

Error stage(OpenRow& row, DetailedPlan& plan, std::vector<Site>& sites, const RestoreOptions& options) {
  return Staging(row, plan, sites, options).run();
}

}  // namespace ConfSave::snapshots
