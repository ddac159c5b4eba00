#include <unistd.h>

#include <iostream>

#include "exit_status.h"
#include "interrupt.h"
#include "names.h"
#include "question.h"
#include "saving.h"
#include "text.h"
#include "turns.h"
#include "verb_functions.h"

namespace console {
namespace {

using Outcome = cs::Saved::Outcome;

cs::Result<cs::Snapshot> find(const cs::Id& id, const Deadline& deadline) {
  cs::Query query;
  query.pattern = id.name;
  query.version = id.version;
  query.corlu_config = true;
  return in_turns(deadline, [&](std::chrono::milliseconds wait) {
    query.wait = wait;
    return cs::find(query);
  });
}

std::string question(const cs::Snapshot& old) {
  return "'" + label(old) + "', saved on " + ConfSave::time_format(old.config.save_time) +
         ", exists. Overwrite it?";
}

bool is_taken(const cs::Result<cs::Saved>& saved) {
  return !saved && saved.error().code == cs::Code::taken && isatty(STDIN_FILENO) == 1;
}

const char* name_of(Outcome outcome) {
  switch (outcome) {
    case Outcome::created:
      return "created";
    case Outcome::replaced:
      return "replaced";
    case Outcome::unchanged:
      break;
  }
  return "unchanged";
}

void print_as_json(const cs::Saved& saved) {
  Json document = json_id(saved.snapshot);
  document["result"] = name_of(saved.outcome);
  document["files"] = saved.files;
  document["bytes"] = saved.bytes;
  document["missing"] = json_all(saved.missing);
  print_json(document);
}

/// It would be lost in silence.
void warn_of_lost_comment(const cs::Saved& saved, const Options& options) {
  const bool is_there = options.comment.empty() || options.comment == saved.snapshot.comment;
  if (saved.outcome != Outcome::unchanged || is_there) return;
  std::cerr << "confsave: warning: the comment was not stored, as no snapshot was. To give it to the one "
               "that exists, run 'confsave note "
            << label(saved.snapshot) << " TEXT'.\n";
}

}  // namespace

int save(const Options& options) {
  if (!check_name(options.snapshot.name)) return kUsage;
  const cs::Id id{options.snapshot.name, options.snapshot.version.value_or(ConfSave::CURRENT_VERSION)};
  cs::SaveOptions how;
  how.type = options.type;
  how.comment = options.comment;
  how.overwrite = how.allow_empty = options.force;
  how.if_changed = options.if_changed;
  Deadline deadline = options.deadline;
  auto saved = save_in_time(id, how, deadline);
  for (bool is_asked = false; is_taken(saved); is_asked = true) {
    const auto old = find(id, deadline);
    if (!old && old.error().code != cs::Code::not_found) return report(old.error(), true);
    if (!old) {
      saved = save_in_time(id, how, deadline);
      continue;
    }
    if (is_asked) std::cerr << "confsave: " << readable(saved.error().text) << ".\n";
    // No lock is held now.
    if (ask(question(*old)) != Answer::yes) {
      std::cerr << "confsave: " << (interrupted() ? "interrupted; " : "") << "nothing was stored.\n";
      return kDeclined;
    }
    // The time in which a person thinks does not count.
    deadline = Deadline(options.wait);
    saved = save_over_in_time(*old, how, deadline);
  }
  if (!saved) return report_unsaved(saved.error(), true);
  print_warnings(*saved);
  if (options.json) {
    print_as_json(*saved);
  } else {
    print_if_unchanged(*saved);
  }
  std::cout.flush();
  warn_of_lost_comment(*saved, options);
  return kDone;
}

}  // namespace console
