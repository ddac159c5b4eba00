#include "snapshots/archive_path.h"
#include "snapshots/text.h"

#include <string_view>

namespace ConfSave::snapshots {
namespace {

Error unsafe(const std::string& path, std::string text) {
  return {Code::unsafe, 0, printable(path), std::move(text)};
}

}  // namespace

Error normalize(const std::string& stored, const Limits& limits, std::string& path) {
  path.clear();
  if (stored.empty()) return unsafe(stored, "a member has no name");
  if (stored.size() > limits.path) {
    return unsafe(stored.substr(0, 80) + "...",
                  "the name of a member is longer than " + std::to_string(limits.path) + " bytes");
  }
  if (stored.front() == '/') return unsafe(stored, "the name of a member is absolute");
  if (stored.find('\n') != std::string::npos) return unsafe(stored, "the name of a member has a line feed");
  std::size_t depth = 0;
  for (std::size_t start = 0; start <= stored.size();) {
    const std::size_t end = std::min(stored.find('/', start), stored.size());
    const std::string_view part = std::string_view(stored).substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") return unsafe(stored, "the name of a member goes through \"..\"");
    if (part.size() > 255) return unsafe(stored, "a part of a member's name is longer than 255 bytes");
    if (++depth > limits.depth) {
      return unsafe(stored, "a member is deeper than " + std::to_string(limits.depth) + " directories");
    }
    if (!path.empty()) path += '/';
    path += part;
  }
  return {};
}

}  // namespace ConfSave::snapshots
