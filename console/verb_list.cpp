#include <iostream>
#include <sstream>

#include "columns.h"
#include "exit_status.h"
#include "report.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

using ConfSave::Config;

cs::Query query_of(const Options& options) {
  using Order = cs::Query::Order;
  cs::Query query;
  query.wait = options.deadline.left();
  query.up_to = options.upto;
  query.corlu_config = options.all;
  query.order = options.sort == "name"      ? Order::name
                : options.sort == "version" ? Order::version
                : options.sort == "saved"   ? Order::saved
                : options.sort == "loaded"  ? Order::loaded
                                            : Order::id;
  return query;
}

template <class Value>
std::string text_of(const Value& value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

Json json_of(const cs::Snapshot& snapshot) {
  const Config& config = snapshot.config;
  const bool loaded = config.load_time != 0;
  Json object;
  object["id"] = snapshot.id;
  object["name"] = json_bytes(config.name);
  object["type"] = json_text(text_of(config.type));
  object["version"] = config.vers;
  object["version_text"] = json_text(config.version());
  object["saved"] = config.save_time;
  object["saved_utc"] = json_utc(config.save_time);
  object["loaded"] = loaded ? Json(config.load_time) : nullptr;
  object["loaded_utc"] = loaded ? json_utc(config.load_time) : nullptr;
  object["comment"] = json_text(snapshot.comment);
  object["pinned"] = snapshot.pinned;
  return object;
}

std::string or_dash(const std::string& text) { return text.empty() ? "-" : text; }

Row row_of(const cs::Snapshot& snapshot) {
  const Config& config = snapshot.config;
  return {printable(config.name),
          or_dash(config.version()),
          or_dash(text_of(config.type)),
          or_dash(ConfSave::time_format(config.save_time)),
          config.load_time != 0 ? or_dash(ConfSave::time_format(config.load_time)) : "never",
          snapshot.pinned ? "yes" : "no",
          or_dash(readable(snapshot.comment))};
}

void print(const cs::Snapshots& snapshots, const Options& options) {
  if (options.json) {
    JsonArray array;
    for (const cs::Snapshot& snapshot : snapshots) array.add(json_of(snapshot));
    array.end();
  } else if (options.table) {
    print_columns({"NAME", "VERSION", "TYPE", "SAVED", "LOADED", "PINNED", "COMMENT"}, snapshots, row_of);
  } else {
    for (const cs::Snapshot& snapshot : snapshots) {
      // A foreign row may have a name with control characters, which a terminal would obey.
      Config config = snapshot.config;
      config.name = printable(config.name);
      std::cout << config << '\n';
    }
  }
}

}  // namespace

int list(const Options& options) {
  cs::Error notes;
  const auto snapshots = cs::list(query_of(options), notes);
  if (!snapshots) return report(snapshots.error());
  print(*snapshots, options);
  // The others have neither comments nor pins.
  if (notes.code != cs::Code::ok && (options.json || options.table)) warn_of_notes(notes);
  return kDone;
}

}  // namespace console
