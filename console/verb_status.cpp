#include <iomanip>
#include <iostream>
#include <sstream>

#include "exit_status.h"
#include "pending_text.h"
#include "recovering.h"
#include "report.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

/// Null when there is no such snapshot.
Json json_time(ConfSave::int64 time) { return time != 0 ? json_utc(time) : Json(nullptr); }

/// While a check runs there is no deadline.
Json json_pending(const std::optional<cs::Pending>& pending) {
  if (!pending) return nullptr;
  Json object;
  object["name"] = json_bytes(pending->name);
  object["version"] = pending->version;
  object["deadline_utc"] = pending->is_checked ? Json(nullptr) : json_utc(pending->deadline);
  object["seconds_left"] = pending->is_checked ? Json(nullptr) : Json(pending->seconds_left);
  return object;
}

Json json_interrupted(const std::optional<cs::Unfinished>& left) {
  if (!left || left->is_pending) return nullptr;
  Json object;
  object["name"] = json_bytes(left->name);
  object["version"] = left->version;
  return object;
}

void print_as_json(const cs::Status& found, const std::optional<cs::Pending>& pending,
                   const std::optional<cs::Unfinished>& left) {
  Json document;
  document["attention"] = Json::array();
  for (const cs::Attention& attention : found.attention) {
    Json object;
    object["code"] = attention.code;
    object["text"] = attention.text;
    document["attention"].push_back(object);
  }
  document["pending"] = json_pending(pending);
  document["interrupted"] = json_interrupted(left);
  document["snapshots"] = found.snapshots;
  document["newest_utc"] = json_time(found.newest);
  document["newest_autosave_utc"] = json_time(found.newest_autosave);
  document["storage_bytes"] = found.storage_bytes;
  document["free_bytes"] = found.free_bytes;
  print_json(document);
}

std::string time_text(ConfSave::int64 time) {
  if (time == 0) return "none";
  // A foreign row may have one that no calendar has.
  const std::string text = ConfSave::time_format(time);
  return text.empty() ? "saved " + std::to_string(time) + " seconds after 1970" : "saved on " + text;
}

std::string size_text(ConfSave::int64 bytes) {
  constexpr double kStep = 1024;
  const char* unit = "KiB";
  double size = static_cast<double>(bytes) / kStep;
  for (const char* larger : {"MiB", "GiB", "TiB"}) {
    if (size < kStep) break;
    size /= kStep;
    unit = larger;
  }
  std::ostringstream text;
  text << std::fixed << std::setprecision(1) << size << ' ' << unit;
  return text.str();
}

/// With the time that is left, where the library has only the moment.
std::string words_of(const cs::Attention& attention, const Options& options) {
  if (attention.code != "pending") return readable(attention.text);
  const auto pending = cs::pending({options.deadline.left()});
  const bool has_time = pending && *pending && (*pending)->seconds_left > 0 && !(*pending)->is_checked;
  return has_time ? text_of(**pending) : readable(attention.text);
}

void print_as_text(const cs::Status& found, const Options& options) {
  for (const cs::Attention& attention : found.attention) {
    std::cout << attention.code << ": " << words_of(attention, options) << '\n';
  }
  std::cout << "snapshots:        " << found.snapshots << '\n'
            << "newest:           " << time_text(found.newest) << '\n'
            << "newest autosave:  " << time_text(found.newest_autosave) << '\n'
            << "storage:          " << size_text(found.storage_bytes) << ", and "
            << size_text(found.free_bytes) << " are free\n";
}

}  // namespace

int show_status(const Options& options) {
  const auto found = cs::status({options.deadline.left()});
  if (!found) {
    // What is unfinished counts the more.
    print_unfinished(options, found.error());
    return report(found.error());
  }
  if (options.json) {
    // What cannot be read needs attention, and is among that.
    const cs::ReadOptions limits{options.deadline.left()};
    const auto pending = cs::pending(limits);
    const auto left = cs::unfinished(limits);
    print_as_json(*found, pending ? *pending : std::nullopt, left ? *left : std::nullopt);
  } else {
    print_as_text(*found, options);
  }
  return found->attention.empty() ? kDone : kFindings;
}

}  // namespace console
