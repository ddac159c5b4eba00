#include "snapshots/arguments.h"

#include <algorithm>

#include "snapshots/archive_path.h"

namespace ConfSave::snapshots {
namespace {

constexpr std::size_t kLongestName = 80;
constexpr std::size_t kLongestComment = 4096;

Error bad(const std::string& text) { return {Code::bad_argument, 0, "", text}; }

bool is_control(char letter) {
  const auto byte = static_cast<unsigned char>(letter);
  return byte < 0x20 || byte == 0x7f;
}

}  // namespace

Error check_id(const Id& id) {
  if (id.name.empty()) return bad("the name is empty");
  if (id.name.size() > kLongestName) return bad("a name has at most 80 characters");
  const std::size_t wrong = id.name.find_first_not_of(VALID_NAME_CHARS);
  if (wrong != std::string::npos) {
    return bad("the name has the character '" + printable(id.name.substr(wrong, 1)) +
               "'; a name has letters, digits, '-' and '_'");
  }
  return id.version >= 0 ? Error{} : bad("the version is negative");
}

Error check_type(conftype type) {
  const bool known = type == conf_full || type == conf_part || type == conf_corlu;
  return known ? Error{} : bad("the type is not full, part or corlu");
}

Error check_comment(const std::string& comment) {
  if (comment.size() > kLongestComment) {
    return bad("a comment has at most " + std::to_string(kLongestComment) + " bytes");
  }
  if (std::any_of(comment.begin(), comment.end(), is_control)) {
    return bad("a comment has no control characters");
  }
  return {};
}

}  // namespace ConfSave::snapshots
