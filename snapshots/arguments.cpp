#include "snapshots/arguments.h"

#include <set>
#include <utility>
#include <vector>

#include "places.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

constexpr std::size_t kLongestName = 80;
/// VALID_NAME_CHARS, which is destroyed when the host exits.
constexpr const char* kNameCharacters = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_";
constexpr std::size_t kLongestComment = 4096;
/// SQLite takes no longer one.
constexpr std::size_t kLongestPattern = 50'000;

Error bad(const std::string& text) { return {Code::bad_argument, 0, "", text}; }

/// U+0080 to U+009F, which a terminal may obey, too, are a byte C2 and another one.
bool has_control(const std::string& text) {
  unsigned char before = 0;
  for (const char letter : text) {
    const auto byte = static_cast<unsigned char>(letter);
    if (byte < 0x20 || byte == 0x7f) return true;
    if (before == 0xc2 && byte >= 0x80 && byte < 0xa0) return true;
    before = byte;
  }
  return false;
}

/// The bytes of the code point that begins at `at`; 0 if none does.
std::size_t length_of_code_point(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
  };
  const unsigned first = byte(at);
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  unsigned point = first & (0x7fU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xc0U) != 0x80) return 0;
    point = (point << 6U) | (byte(at + i) & 0x3fU);
  }
  constexpr unsigned kFirst[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool is_surrogate = point >= 0xd800 && point <= 0xdfff;
  const bool is_valid = first >= 0xc0 && first < 0xf8 && point >= kFirst[length] && point <= 0x10ffff;
  return is_valid && !is_surrogate ? length : 0;
}

bool has_nul(const std::string& text) { return text.find('\0') != std::string::npos; }

bool is_utf8(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = length_of_code_point(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

}  // namespace

Error check_id(const Id& id) {
  if (id.name.empty()) return bad("the name is empty");
  if (id.name.size() > kLongestName) return bad("a name has at most 80 characters");
  const std::size_t wrong = id.name.find_first_not_of(kNameCharacters);
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
  if (has_control(comment)) return bad("a comment has no control characters");
  if (!is_utf8(comment)) return bad("a comment is UTF-8 text");
  return {};
}

Error check_pattern(const std::string& pattern) {
  // SQLite would stop there, and match more.
  if (has_nul(pattern)) return bad("a pattern has no NUL bytes");
  if (pattern.size() > kLongestPattern) return bad("a pattern has at most 50,000 bytes");
  return {};
}

Error check_path(const std::string& path) {
  if (!has_nul(path)) return {};
  return {Code::bad_argument, 0, printable(path), "a path has no NUL bytes"};
}

Error check_ids(const Ids& ids) {
  std::set<std::pair<std::string, int64>> seen;
  for (const Id& id : ids) {
    if (seen.insert({id.name, id.version}).second) continue;
    return bad("'" + printable(id.name) + "' is to be exported twice");
  }
  return {};
}

Error check_sink(const Sink& sink) {
  return sink ? Error{} : bad("the function that takes the bytes is empty");
}

Error check_supply(const Supply& supply) {
  return supply ? Error{} : bad("the function that gives the bytes is empty");
}

Error check_when(When when) {
  const bool known = when == When::now || when == When::if_due || when == When::when_due;
  return known ? Error{} : bad("the time is not now, if_due or when_due");
}

Error check_paths(const RestoreOptions& options) {
  if (Error error = check_path(options.target); error.code != Code::ok) return error;
  const std::string& program = options.program;
  if (Error error = check_path(program); error.code != Code::ok) return error;
  if (program.empty() || program.front() == '/') return {};
  return {Code::bad_argument, 0, printable(program),
          "the program needs an absolute path: it is run from \"/\""};
}

Error check_window(const RestoreOptions& options) {
  if (Error error = check_paths(options); error.code != Code::ok) return error;
  const std::chrono::seconds length = options.confirm_within;
  if (length.count() == 0) return {};
  if (length < kShortestWindow || length > kLongestWindow) {
    return {Code::bad_argument, 0, "", "the time for the confirmation is not 10 seconds to 24 hours"};
  }
  if (options.target.empty()) return {};
  return {Code::bad_argument, 0, "", "a restore into a target directory needs no confirmation"};
}

Error check_absolute(const Record& record) {
  // What was edited is packed there.
  std::vector<std::string> paths = {state_directory(), temporary_directory()};
  for (const Root& root : record.roots) paths.push_back(root.path);
  for (const std::string& path : paths) {
    if (!path.empty() && path.front() == '/') continue;
    return {Code::bad_argument, 0, path, "a restore that is taken back later needs an absolute path"};
  }
  return {};
}

}  // namespace ConfSave::snapshots
