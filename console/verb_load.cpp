#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <limits>
#include <stdexcept>

#include "check_command.h"
#include "choosing.h"
#include "exit_status.h"
#include "interrupt.h"
#include "names.h"
#include "pending_text.h"
#include "plan_text.h"
#include "progress_line.h"
#include "question.h"
#include "recovering.h"
#include "text.h"
#include "turns.h"
#include "verb_functions.h"

namespace console {
namespace {

using Outcome = cs::Restored::Outcome;

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

const char* name_of(cs::Action action) {
  switch (action) {
    case cs::Action::create:
      return "create";
    case cs::Action::replace:
      return "replace";
    case cs::Action::remove:
      return "remove";
    case cs::Action::attributes:
      break;
  }
  return "attributes";
}

const char* name_of(Outcome outcome) {
  switch (outcome) {
    case Outcome::unchanged:
      return "unchanged";
    case Outcome::pending:
      return "pending";
    case Outcome::restored:
      break;
  }
  return "restored";
}

/// What the process is started from that takes a pending restore back.
std::string this_program() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  // One that was replaced since, as by an upgrade, is not there any more.
  return std::filesystem::exists(program, error) ? program.string() : "";
}

void print_as_json(const cs::Plan& plan, const char* result, const cs::Restored& restored = {}) {
  const std::string& kept = restored.kept;
  Json document = json_id(plan.snapshot);
  document["result"] = result;
  document["changes"] = Json::array();
  for (const cs::PlannedChange& change : plan.changes) {
    Json object;
    object["path"] = json_bytes(change.difference.path);
    object["change"] = name_of(change.action);
    document["changes"].push_back(object);
  }
  document["extra"] = json_all(plan.extra);
  document["kept"] = kept.empty() ? Json(nullptr) : json_bytes(kept);
  document["deadline_utc"] = restored.deadline != 0 ? json_utc(restored.deadline) : Json(nullptr);
  print_json(document);
}

void print_unchanged(std::ostream& out, const cs::Plan& plan) {
  out << "Unchanged: nothing differs from '" << label(plan.snapshot) << "'.\n";
}

void print_extra(std::ostream& out, const cs::Plan& plan) {
  if (!plan.extra.empty()) out << text_of_extra(plan.extra) << ".\n";
}

/// A plan takes nothing back, and says what it waits for.
cs::Error refusal_of(const cs::Unfinished& left) {
  const std::string what = "the restore of '" + printable(left.name) + "'";
  if (!left.is_pending)
    return {cs::Code::needs_attention, 0, "", what + " was interrupted; run 'confsave recover' first"};
  const auto waiting = cs::pending();
  const bool is_checked = waiting && *waiting && (*waiting)->is_checked;
  const bool is_over = waiting && *waiting && !is_checked && (*waiting)->seconds_left == 0;
  return {cs::Code::pending, 0, "",
          is_over ? text_of(**waiting)
                  : what + (is_checked ? " waits for its check" : " waits to be confirmed")};
}

/// Before a snapshot is chosen: what an earlier restore left must be settled.
int settle(const Options& options) {
  const auto left = cs::unfinished({options.deadline.left()});
  if (!left) return report(left.error(), true);
  if (!*left) return kDone;
  if (options.dry_run) return report_restore(refusal_of(**left));
  const auto done = recover_in_time(options.deadline);
  return done ? print_recovery(std::cerr, *done) : report_restore(done.error());
}

int dry_run(const cs::Snapshot& snapshot, const Options& options, cs::RestoreOptions how) {
  how.wait = options.deadline.left();
  const auto plan = cs::plan(id_of(snapshot), how);
  if (!plan) return report_restore(plan.error(), snapshot);
  if (options.json) {
    print_as_json(*plan, plan->changes.empty() ? "unchanged" : "planned");
  } else {
    print_plan(std::cout, *plan, kAll);
    if (plan->changes.empty()) print_unchanged(std::cout, *plan);
    print_extra(std::cout, *plan);
  }
  return plan->changes.empty() ? kDone : kFindings;
}

Answer ask_about_extra(const cs::Plan& plan) {
  return ask(plan.extra.size() == 1 ? "Remove it too?" : "Remove them too?");
}

/// Shows the plan and asks, without any lock. What is agreed to becomes part of `how`.
int agree(const cs::Snapshot& snapshot, const Options& options, cs::RestoreOptions& how) {
  std::ostream& result = options.json ? std::cerr : std::cout;
  // The plan appears where the question does.
  std::ostream& out = isatty(STDOUT_FILENO) == 1 ? result : std::cerr;
  Deadline deadline = options.deadline;
  for (bool may_ask = !how.exact;; may_ask = false) {
    how.expected.reset();
    how.wait = deadline.left();
    auto plan = cs::plan(id_of(snapshot), how);
    if (!plan) return report_restore(plan.error(), snapshot);
    print_plan(out, *plan, lines_of_screen());
    print_extra(out, *plan);
    const bool is_empty = plan->changes.empty();
    const bool asks = may_ask && !plan->extra.empty();
    if (is_empty && !asks) print_unchanged(result, *plan);
    how.expected = std::move(*plan);
    if (asks) {
      const Answer answer = ask_about_extra(*how.expected);
      if (answer == Answer::none) return kDeclined;
      deadline = Deadline(options.wait);
      how.exact = answer == Answer::yes;
      // Shown anew, with what will be removed.
      if (how.exact) continue;
      if (is_empty) print_unchanged(result, *how.expected);
    }
    if (is_empty || ask("Go on?") == Answer::yes) return kDone;
    return kDeclined;
  }
}

std::string text_of(const cs::Progress& progress) {
  using Phase = cs::Progress::Phase;
  const std::string part =
      progress.total > 0 ? " " + std::to_string(100 * progress.done / progress.total) + " %," : "";
  switch (progress.phase) {
    case Phase::reading:
      return "reading" + part;
    case Phase::staging:
      return "writing" + part;
    case Phase::keeping:
      return "storing the present configuration";
    case Phase::exchange:
      break;
  }
  return "exchanging the files";
}

cs::RestoreOptions restore_options(const Options& options) {
  cs::RestoreOptions how;
  if (!options.target.empty()) how.target = std::filesystem::absolute(options.target);
  how.exact = options.exact;
  how.keep = options.keep;
  how.allow_newer = options.force;
  how.confirm_within = std::chrono::seconds(options.confirm_within);
  if (options.confirm_within != 0) how.program = this_program();
  return how;
}

cs::Result<cs::Restored> restore(const cs::Id& id, cs::RestoreOptions how, const Options& options) {
  ProgressLine line("restoring");
  // Up to the exchange an interrupt ends the restore: the recovery sweeps what was written so far.
  how.progress = [&line](const cs::Progress& progress) {
    if (interrupted()) throw std::runtime_error("interrupted");
    line.say(text_of(progress));
  };
  const auto attempt = [&](std::chrono::milliseconds wait) {
    how.wait = wait;
    return cs::restore(id, how);
  };
  if (options.check.empty()) return in_turns(options.deadline, attempt);
  bool was_checked = false;
  how.check = [&] {
    line.end();
    was_checked = true;
    // The library waits for the lock once more, and not in turns: a good restore must not fail for that.
    how.wait = std::chrono::seconds(options.wait);
    return run_check(options.check);
  };
  // Here whatever ends the session still ends the process.
  const auto ready = recover_in_time(options.deadline);
  if (!ready) return ready.error();
  print_recovery(std::cerr, *ready);
  // It must not end the process before the restore is taken back.
  const TerminationCatcher catcher;
  // No check runs twice.
  return in_turns(options.deadline, attempt, [&was_checked] { return was_checked; });
}

int print_restored(const cs::Restored& restored, const Options& options, bool was_shown) {
  const bool unchanged = restored.outcome == Outcome::unchanged;
  print_warnings(restored.warnings);
  if (options.json) {
    print_as_json(restored.plan, name_of(restored.outcome), restored);
    return kDone;
  }
  if (!was_shown && unchanged) print_unchanged(std::cout, restored.plan);
  if (!was_shown) print_extra(std::cout, restored.plan);
  if (!restored.kept.empty()) {
    std::cout << "'" << readable(restored.kept) << "' holds the configuration of before.\n";
  }
  if (restored.outcome == Outcome::pending) std::cout << paragraph_of(restored, options.confirm_within);
  return kDone;
}

int restore_and_report(const cs::Snapshot& snapshot, const cs::RestoreOptions& how, const Options& options,
                       bool was_shown) {
  const auto restored = restore(id_of(snapshot), how, options);
  if (restored) return print_restored(*restored, options, was_shown);
  const bool untouched = restored.error().aftermath == cs::Aftermath::untouched;
  if (!interrupted() || !untouched) return report_restore(restored.error(), snapshot);
  const auto left = cs::unfinished();
  if (left && *left) {
    const auto done = recover_in_time(Deadline(kWaitOfReaders));
    if (!done) return report_restore(done.error());
  }
  std::cerr << "confsave: interrupted; nothing was restored.\n";
  return kDeclined;
}

}  // namespace

int load(const Options& options) {
  if (!check_pattern(options.snapshot.name)) return kUsage;
  const bool asks = !options.yes && !options.dry_run;
  if (asks && isatty(STDIN_FILENO) == 0) {
    std::cerr << "confsave: load asks a question, but standard input is not a terminal. Give --yes to be "
                 "asked none.\n";
    return kUsage;
  }
  if (const int status = settle(options); status != kDone) return status;
  int status = kDone;
  const auto snapshot = choose_to_restore(options, status);
  if (!snapshot) return status;
  cs::RestoreOptions how = restore_options(options);
  if (options.dry_run) return dry_run(*snapshot, options, how);
  if (asks) status = agree(*snapshot, options, how);
  if (status == kDone && !interrupted())
    return restore_and_report(*snapshot, how, asks ? renewed(options) : options, asks);
  if (status != kDone && status != kDeclined) return status;
  std::cerr << "confsave: " << (interrupted() ? "interrupted; " : "") << "nothing was restored.\n";
  return kDeclined;
}

}  // namespace console
