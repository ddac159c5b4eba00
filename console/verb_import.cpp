#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "exit_status.h"
#include "names.h"
#include "recovering.h"
#include "report.h"
#include "text.h"
#include "turns.h"
#include "verb_functions.h"

namespace console {
namespace {

cs::ImportOptions options_of(const Options& options) {
  cs::ImportOptions how;
  if (!options.snapshot.name.empty()) how.pattern = options.snapshot.name;
  how.version = options.snapshot.version;
  how.name = options.as;
  how.overwrite = how.allow_newer = options.force;
  return how;
}

/// Standard input can be read only once, so the library waits in one go. Before that, the lock is waited
/// for in turns, which an interrupt ends: not before all is read, which may take longer than others need.
cs::Result<cs::Imported> import_pipe(cs::ImportOptions how, unsigned wait) {
  std::string buffer(128 << 10, '\0');
  how.wait = std::chrono::seconds(wait);
  const cs::Supply supply = [&buffer, wait]() -> cs::Result<std::string_view> {
    for (;;) {
      const ssize_t size = read(STDIN_FILENO, buffer.data(), buffer.size());
      if (size > 0) return std::string_view(buffer.data(), static_cast<std::size_t>(size));
      if (size < 0 && errno == EINTR && !interrupted()) continue;
      if (size < 0) return cs::Error{cs::Code::failed, errno, "standard input", std::strerror(errno)};
      const auto ready = recover_in_time(Deadline(wait));
      if (!ready) return ready.error();
      print_recovery(std::cerr, *ready);
      return std::string_view();
    }
  };
  return cs::import_from(supply, how);
}

cs::Result<cs::Imported> import_in_time(const Options& options) {
  cs::ImportOptions how = options_of(options);
  if (options.exchanged == "-") {
    // What ends the process would leave the file that holds what was read so far.
    const TerminationCatcher catcher;
    return import_pipe(how, options.wait);
  }
  return in_turns(options.deadline, [&](std::chrono::milliseconds wait) {
    how.wait = wait;
    return cs::import_from(options.exchanged, how);
  });
}

}  // namespace

int import_snapshots(const Options& options) {
  if (!options.snapshot.name.empty() && !check_pattern(options.snapshot.name)) return kUsage;
  if (options.as && !check_name(*options.as)) return kUsage;
  if (options.exchanged == "-" && isatty(STDIN_FILENO) == 1) {
    std::cerr << "confsave: standard input is a terminal; read from a file or a pipe.\n";
    return kUsage;
  }
  const auto imported = import_in_time(options);
  if (!imported && interrupted()) {
    std::cerr << "confsave: interrupted; nothing was stored.\n";
    return kFailed;
  }
  if (!imported) {
    // A new name is for one, too.
    return report_import(imported.error(), options.exchanged, options.as || !options.snapshot.name.empty());
  }
  print_warnings(imported->warnings);
  if (!options.json) return kDone;
  JsonArray array;
  for (const cs::Snapshot& snapshot : imported->snapshots) array.add(json_id(snapshot));
  array.end();
  return kDone;
}

}  // namespace console
