#include "snapshots/text.h"

namespace ConfSave::snapshots {

std::string printable(const std::string& text) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string result;
  for (const char letter : text) {
    const auto byte = static_cast<unsigned char>(letter);
    if (byte >= 0x20 && byte != 0x7f) {
      result += letter;
    } else {
      result.append("\\x") += kDigits[byte >> 4U];
      result += kDigits[byte & 0xfU];
    }
  }
  return result;
}

}  // namespace ConfSave::snapshots
