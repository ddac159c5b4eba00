#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>

#include "choosing.h"
#include "exit_status.h"
#include "report.h"
#include "text.h"
#include "turns.h"
#include "verb_functions.h"

namespace console {
namespace {

constexpr int kAttempts = 10;

cs::Error write_out(std::string_view bytes) {
  while (!bytes.empty()) {
    if (interrupted()) return {cs::Code::failed, EINTR, "standard output", "interrupted"};
    const ssize_t size = write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return {cs::Code::failed, errno, "standard output", std::strerror(errno)};
    bytes.remove_prefix(static_cast<std::size_t>(size));
  }
  return {};
}

cs::Result<cs::Exported> export_into(const cs::Ids& ids, const Options& options) {
  if (options.exchanged == "-") return cs::export_to(ids, write_out, {options.deadline.left()});
  cs::ExportOptions how;
  how.overwrite = options.force;
  how.wait = options.deadline.left();
  // What ends the process would leave a part of the file under a temporary name.
  const TerminationCatcher catcher;
  return cs::export_to(ids, options.exchanged, how);
}

/// A storage that was lost must not replace the copies that are left of it.
bool would_empty(const cs::Ids& ids, const Options& options) {
  struct stat status = {};
  const bool is_pipe = options.exchanged == "-";
  return ids.empty() && (is_pipe || (options.force && lstat(options.exchanged.c_str(), &status) == 0));
}

/// --force would not replace it: said at once, and not after the advice to give --force.
bool is_in_the_way(const Options& options) {
  struct stat status = {};
  return !options.force && options.exchanged != "-" && lstat(options.exchanged.c_str(), &status) == 0 &&
         !S_ISREG(status.st_mode);
}

/// With --all, what others delete in the meantime is left out.
std::optional<cs::Exported> export_chosen(Options options, int& status) {
  for (int attempt = 1;; ++attempt) {
    const auto snapshots = choose_some(options, status);
    if (!snapshots) return std::nullopt;
    cs::Ids ids;
    for (const cs::Snapshot& snapshot : *snapshots) ids.push_back(id_of(snapshot));
    if (would_empty(ids, options)) {
      status = kNotFound;
      const bool is_pipe = options.exchanged == "-";
      std::cerr << "confsave: nothing is stored; "
                << (is_pipe ? "nothing was written"
                            : "'" + readable(options.exchanged) + "' stays as it is")
                << ".\n";
      return std::nullopt;
    }
    auto exported = export_into(ids, options);
    if (exported) return std::move(*exported);
    const bool is_deleted = options.all && exported.error().code == cs::Code::not_found;
    if (is_deleted && attempt < kAttempts) {
      options.deadline = Deadline(kWaitOfReaders);
      continue;
    }
    if (interrupted()) {
      status = kFailed;
      std::cerr << "confsave: interrupted; "
                << (options.exchanged == "-" ? "the copy is not whole" : "nothing was written") << ".\n";
    } else {
      status = report(exported.error());
    }
    return std::nullopt;
  }
}

}  // namespace

int export_snapshots(const Options& options) {
  if (options.exchanged == "-" && isatty(STDOUT_FILENO) == 1) {
    std::cerr << "confsave: standard output is a terminal; write to a file or into a pipe.\n";
    return kUsage;
  }
  if (is_in_the_way(options))
    return report({cs::Code::bad_argument, 0, options.exchanged, "this is not a regular file"});
  int status = kDone;
  const auto exported = export_chosen(options, status);
  if (!exported) return status;
  print_warnings(exported->warnings);
  if (!options.json) return kDone;
  JsonArray array;
  for (const cs::Snapshot& snapshot : exported->snapshots) array.add(json_id(snapshot));
  array.end();
  return kDone;
}

}  // namespace console
