#include "snapshots/text.h"

namespace ConfSave::snapshots {

namespace {

/// Also those of U+0080 to U+009F, which are two bytes: terminals obey some of them.
bool is_control(const std::string& text, std::size_t at) {
  const auto byte = [&text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  const auto is_second = [&byte](std::size_t index) { return byte(index) >= 0x80 && byte(index) < 0xa0; };
  if (byte(at) == 0xc2) return at + 1 < text.size() && is_second(at + 1);
  if (at > 0 && byte(at - 1) == 0xc2 && is_second(at)) return true;
  return byte(at) < 0x20 || byte(at) == 0x7f;
}

}  // namespace

std::string printable(const std::string& text) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (!is_control(text, at)) {
      result += text[at];
      continue;
    }
    const auto byte = static_cast<unsigned char>(text[at]);
    result.append("\\x") += kDigits[byte >> 4U];
    result += kDigits[byte & 0xfU];
  }
  return result;
}

}  // namespace ConfSave::snapshots
