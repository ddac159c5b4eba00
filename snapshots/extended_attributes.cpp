#include "snapshots/extended_attributes.h"

#include <endian.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace ConfSave::snapshots {
namespace {

constexpr const char* kAccess = "system.posix_acl_access";
constexpr const char* kDefault = "system.posix_acl_default";

/// An access list as the kernel has it: a version and entries, all little-endian.
constexpr std::size_t kHeader = 4;
constexpr std::size_t kEntry = 8;
constexpr std::uint16_t kNamedUser = 0x02;
constexpr std::uint16_t kOwningGroup = 0x04;
constexpr std::uint16_t kNamedGroup = 0x08;
constexpr std::uint16_t kMask = 0x10;

std::uint16_t read16(const std::string& text, std::size_t offset) {
  std::uint16_t value = 0;
  std::memcpy(&value, text.data() + offset, sizeof value);
  return le16toh(value);
}

void write16(std::string& text, std::size_t offset, std::uint16_t value) {
  value = htole16(value);
  std::memcpy(text.data() + offset, &value, sizeof value);
}

/// The file system has no such attributes, or a list without them.
bool has_none() { return errno == ENODATA || errno == ENOTSUP || errno == ENOSYS; }

std::optional<std::vector<std::string>> names_of(int file) {
  std::string text;
  for (;;) {
    const ssize_t size = flistxattr(file, nullptr, 0);
    if (size < 0) break;
    text.resize(static_cast<std::size_t>(size));
    const ssize_t got = flistxattr(file, text.data(), text.size());
    if (got < 0 && errno == ERANGE) continue;
    if (got < 0) break;
    text.resize(static_cast<std::size_t>(got));
    std::vector<std::string> names;
    // Each name ends in a NUL.
    for (std::size_t start = 0; start < text.size(); start += names.back().size() + 1) {
      names.push_back(text.substr(start, text.find('\0', start) - start));
    }
    return names;
  }
  if (has_none()) return std::vector<std::string>();
  return {};
}

std::optional<std::string> value_of(int file, const std::string& name) {
  for (;;) {
    const ssize_t size = fgetxattr(file, name.c_str(), nullptr, 0);
    if (size < 0) return {};
    std::string value(static_cast<std::size_t>(size), '\0');
    const ssize_t got = fgetxattr(file, name.c_str(), value.data(), value.size());
    if (got < 0 && errno == ERANGE) continue;
    if (got < 0) return {};
    value.resize(static_cast<std::size_t>(got));
    return value;
  }
}

bool vouches_for_the_content(const std::string& name) {
  return name == "security.capability" || name == "security.ima" || name == "security.evm";
}

bool set_attribute(int file, const std::string& name, const std::string& value) {
  if (fsetxattr(file, name.c_str(), value.data(), value.size(), 0) == 0) return true;
  // A process that may not set a security label keeps the one that the kernel has given.
  return name.compare(0, 9, "security.") == 0 && errno == EPERM && geteuid() != 0;
}

}  // namespace

std::string limited_by_mask(std::string list) {
  std::uint16_t mask = 07;
  for (std::size_t entry = kHeader; entry + kEntry <= list.size(); entry += kEntry) {
    if (read16(list, entry) == kMask) mask = read16(list, entry + 2);
  }
  for (std::size_t entry = kHeader; entry + kEntry <= list.size(); entry += kEntry) {
    const std::uint16_t tag = read16(list, entry);
    if (tag != kNamedUser && tag != kOwningGroup && tag != kNamedGroup) continue;
    write16(list, entry + 2, read16(list, entry + 2) & mask);
  }
  return list;
}

std::string access_list(int directory) { return value_of(directory, kAccess).value_or(""); }

bool set_access_list(int directory, const std::string& list) {
  return list.empty() || fsetxattr(directory, kAccess, list.data(), list.size(), 0) == 0;
}

std::optional<ExtendedAttributes> extended_attributes(int file, bool with_access_list) {
  const std::optional<std::vector<std::string>> names = names_of(file);
  if (!names) return {};
  ExtendedAttributes attributes;
  for (const std::string& name : *names) {
    if ((name == kAccess && !with_access_list) || vouches_for_the_content(name)) continue;
    std::optional<std::string> value = value_of(file, name);
    if (!value && errno == ENODATA) continue;
    if (!value) return {};
    attributes.emplace_back(name, name == kAccess ? limited_by_mask(*value) : std::move(*value));
  }
  return attributes;
}

bool set_extended_attributes(int file, const ExtendedAttributes& attributes) {
  return std::all_of(attributes.begin(), attributes.end(), [file](const auto& attribute) {
    return set_attribute(file, attribute.first, attribute.second);
  });
}

bool remove_access_lists(int directory) {
  const auto remove = [directory](const char* name) {
    return fremovexattr(directory, name) == 0 || has_none();
  };
  return remove(kAccess) && remove(kDefault);
}

}  // namespace ConfSave::snapshots
