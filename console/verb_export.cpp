#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "exit_status.h"
#include "report.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

/// The snapshots that are to be copied.
std::optional<cs::Snapshots> chosen(const Options& options, int& status) {
  if (!options.all) {
    const auto one = choose(options.snapshot, status);
    return one ? std::optional<cs::Snapshots>({*one}) : std::nullopt;
  }
  cs::Query query;
  query.corlu_config = true;
  auto all = cs::list(query);
  if (all) return *all;
  status = report(all.error());
  return std::nullopt;
}

cs::Error write_out(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t size = write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return {cs::Code::failed, errno, "standard output", std::strerror(errno)};
    bytes.remove_prefix(static_cast<std::size_t>(size));
  }
  return {};
}

cs::Result<cs::Exported> export_into(const cs::Ids& ids, const Options& options) {
  if (options.exchanged == "-") return cs::export_to(ids, write_out);
  cs::ExportOptions how;
  how.overwrite = options.force;
  return cs::export_to(ids, options.exchanged, how);
}

}  // namespace

int export_snapshots(const Options& options) {
  if (options.exchanged == "-" && isatty(STDOUT_FILENO) == 1) {
    std::cerr << "confsave: standard output is a terminal; write to a file or into a pipe.\n";
    return kUsage;
  }
  int status = kDone;
  const auto snapshots = chosen(options, status);
  if (!snapshots) return status;
  cs::Ids ids;
  for (const cs::Snapshot& snapshot : *snapshots) ids.push_back(id_of(snapshot));
  const auto exported = export_into(ids, options);
  if (!exported) return report(exported.error());
  print_warnings(exported->warnings);
  if (!options.json) return kDone;
  JsonArray array;
  for (const cs::Snapshot& snapshot : exported->snapshots) array.add(json_id(snapshot));
  array.end();
  return kDone;
}

}  // namespace console
