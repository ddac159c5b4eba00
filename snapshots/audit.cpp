#include "snapshots/audit.h"

#include <syslog.h>
#include <unistd.h>

#include <fstream>

#include "kelmor/log.h"
#include "snapshots/author.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

const char* name_of(Code code) {
  switch (code) {
    case Code::ok:
      return "ok";
    case Code::bad_argument:
      return "bad_argument";
    case Code::not_found:
      return "not_found";
    case Code::ambiguous:
      return "ambiguous";
    case Code::taken:
      return "taken";
    case Code::pinned:
      return "pinned";
    case Code::busy:
      return "busy";
    case Code::pending:
      return "pending";
    case Code::not_pending:
      return "not_pending";
    case Code::incomplete:
      return "incomplete";
    case Code::damaged:
      return "damaged";
    case Code::unsafe:
      return "unsafe";
    case Code::changed_meanwhile:
      return "changed_meanwhile";
    case Code::denied:
      return "denied";
    case Code::check_failed:
      return "check_failed";
    case Code::newer:
      return "newer";
    case Code::no_space:
      return "no_space";
    case Code::no_storage:
      return "no_storage";
    case Code::needs_attention:
      return "needs_attention";
    case Code::failed:
      break;
  }
  return "failed";
}

/// As it is, or between quotation marks: a value must not look like two fields.
std::string value(const std::string& text) {
  const char* const plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.:/@+,()";
  if (!text.empty() && text.find_first_not_of(plain) == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char letter : text) {
    if (letter == '"' || letter == '\\') quoted += '\\';
    quoted += letter;
  }
  return printable(quoted) + '"';
}

/// The program that has started this one.
std::string origin() {
  std::ifstream file("/proc/" + std::to_string(getppid()) + "/comm");
  std::string name;
  std::getline(file, name);
  return name;
}

void put_line(int priority, AuditFields fields, const AuditFields& more) {
  const Person who = person();
  fields.insert(fields.end(), more.begin(), more.end());
  fields.emplace_back("user", who.user);
  fields.emplace_back("login", who.login);
  fields.emplace_back(who.terminal.empty() ? "origin" : "terminal",
                      who.terminal.empty() ? origin() : who.terminal);
  std::string line = "confsave:";
  for (const auto& [key, text] : fields) {
    if (!text.empty()) line.append(" ").append(key).append("=").append(value(text));
  }
  slput(priority, "%s", line.c_str());
}

/// What was done is done: a host whose log fails must not take it for an error.
void write_line(int priority, AuditFields fields, const AuditFields& more) noexcept {
  try {
    put_line(priority, std::move(fields), more);
  } catch (...) {
  }
}

AuditFields fields_of(const std::string& action, const std::string& result, const std::string& name,
                      int64 version) {
  return {{"action", action},
          {"result", result},
          {"snapshot", name},
          {"version", version == 0 ? "none" : Config::version(version)}};
}

}  // namespace

void audit(const std::string& action, const Id& id, const Error& error, const AuditFields& more) {
  if (error.code == Code::busy) return;
  AuditFields fields = fields_of(action, name_of(error.code), id.name, id.version);
  fields.emplace_back("path", error.path);
  fields.emplace_back("reason", error.text);
  write_line(error.code == Code::ok ? LOG_NOTICE : LOG_WARNING, std::move(fields), more);
}

void audit(const std::string& action, const Snapshot& snapshot, const std::string& result,
           const AuditFields& more) {
  const Config& config = snapshot.config;
  AuditFields fields = fields_of(action, result, config.name, config.vers);
  fields.emplace_back("id", std::to_string(snapshot.id));
  write_line(LOG_NOTICE, std::move(fields), more);
}

void audit_delay(const std::string& action, const Snapshot& snapshot, const Error& error) {
  audit(action, snapshot, name_of(error.code), {{"path", error.path}, {"reason", error.text}});
}

void audit_restore(const Id& id, const Result<Restored>& restored, const std::string& target) {
  if (restored) {
    constexpr const char* kResults[] = {"unchanged", "ok", "pending"};
    audit("load", restored->plan.snapshot, kResults[static_cast<int>(restored->outcome)],
          {{"target", printable(target)}, {"kept", restored->kept}});
  } else {
    audit("load", id, restored.error(), {{"target", printable(target)}});
  }
}

void audit_save(const Id& id, const Result<Saved>& saved) {
  if (!saved) {
    audit("save", id, saved.error());
  } else if (saved->outcome == Saved::Outcome::unchanged) {
    audit("save", saved->snapshot, "unchanged");
  } else {
    audit("save", saved->snapshot, saved->outcome == Saved::Outcome::replaced ? "replaced" : "ok");
  }
}

}  // namespace ConfSave::snapshots
