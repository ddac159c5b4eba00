#include "snapshots/author.h"

#include <climits>
#include <pwd.h>
#include <unistd.h>

#include <vector>

#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

std::string user() {
  const uid_t number = geteuid();
  std::vector<char> buffer(16 << 10);
  struct passwd entry = {};
  struct passwd* found = nullptr;
  const bool known = getpwuid_r(number, &entry, buffer.data(), buffer.size(), &found) == 0 &&
                     found != nullptr && *found->pw_name != '\0';
  return known ? found->pw_name : "user " + std::to_string(number);
}

std::string login() {
  char name[LOGIN_NAME_MAX + 1] = {};
  return getlogin_r(name, sizeof name) == 0 ? name : "";
}

std::string terminal() {
  constexpr std::size_t kPrefix = sizeof "/dev/" - 1;
  char name[PATH_MAX] = {};
  for (const int number : {STDIN_FILENO, STDERR_FILENO}) {
    if (isatty(number) == 0 || ttyname_r(number, name, sizeof name) != 0) continue;
    const std::string path = name;
    return path.compare(0, kPrefix, "/dev/") == 0 ? path.substr(kPrefix) : path;
  }
  return "";
}

}  // namespace

Person person() { return {user(), login(), terminal()}; }

std::string author() {
  const Person who = person();
  std::string session = who.login != who.user ? who.login : "";
  if (!session.empty() && !who.terminal.empty()) session += ", ";
  session += who.terminal;
  return printable(session.empty() ? who.user : who.user + " (" + session + ")");
}

}  // namespace ConfSave::snapshots
