#include "snapshots/owners.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

/// An archive may have as many names as members.
constexpr std::size_t kMostNames = 64;
constexpr std::size_t kLargestEntry = 4 << 20;

/// Calls `look` with ever larger buffers. Its result is an error number.
template <class Look>
Error look_up(const std::string& name, Look look) {
  std::vector<char> buffer(4 << 10);
  int number = look(buffer);
  while (number == EINTR || (number == ERANGE && buffer.size() < kLargestEntry)) {
    if (number == ERANGE) buffer.resize(buffer.size() * 4);
    number = look(buffer);
  }
  if (number == ENOMEM) throw std::bad_alloc();
  // Systems report a name that they do not know by various numbers.
  const bool has_failed = number == EIO || number == EMFILE || number == ENFILE || number == ERANGE;
  if (!has_failed) return {};
  return {Code::failed, number, "",
          "the owner '" + printable(name) + "' cannot be looked up: " + std::strerror(number)};
}

Error look_up_user(const std::string& name, std::optional<std::uint32_t>& number) {
  return look_up(name, [&](std::vector<char>& buffer) {
    struct passwd entry = {};
    struct passwd* found = nullptr;
    const int error = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (found != nullptr) number = found->pw_uid;
    return error;
  });
}

Error look_up_group(const std::string& name, std::optional<std::uint32_t>& number) {
  return look_up(name, [&](std::vector<char>& buffer) {
    struct group entry = {};
    struct group* found = nullptr;
    const int error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (found != nullptr) number = found->gr_gid;
    return error;
  });
}

template <class LookUp>
Result<std::uint32_t> number_of(std::map<std::string, std::optional<std::uint32_t>>& known,
                                const std::string& name, std::uint32_t number, LookUp look_up) {
  if (name.empty()) return number;
  auto found = known.find(name);
  if (found == known.end()) {
    std::optional<std::uint32_t> local;
    if (Error error = look_up(name, local); error.code != Code::ok) return error;
    if (known.size() == kMostNames) known.clear();
    found = known.emplace(name, local).first;
  }
  return found->second.value_or(number);
}

}  // namespace

Result<std::uint32_t> Owners::user(const std::string& name, std::uint32_t number) {
  return number_of(users_, name, number, look_up_user);
}

Result<std::uint32_t> Owners::group(const std::string& name, std::uint32_t number) {
  return number_of(groups_, name, number, look_up_group);
}

}  // namespace ConfSave::snapshots
