#include "text.h"

#include <cstring>

namespace console {

std::string printable(const std::string& text) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string result;
  for (const char letter : text) {
    const auto byte = static_cast<unsigned char>(letter);
    if (byte >= 0x20 && byte < 0x7f) {
      result += letter;
    } else {
      result.append("\\x").append(1, kDigits[byte >> 4U]).append(1, kDigits[byte & 0xfU]);
    }
  }
  return result;
}

std::string reason(const XTOOStatus& error) {
  const std::string text = error.ErrorMessage();
  if (text.empty()) return "status " + std::to_string(error.Status());
  // A short read or write sets no error.
  if (text == std::strerror(0)) return "fewer bytes were written or read than expected";
  return printable(text);
}

}  // namespace console
