#include "text.h"

#include <langinfo.h>

#include <algorithm>
#include <clocale>
#include <cstring>
#include <ctime>

namespace console {
namespace {

std::uint32_t byte_at(const std::string& text, std::size_t at) {
  return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

/// Without a glyph of their own: control characters, marks that turn the direction of writing or join
/// letters, ends of lines, what is not assigned for text.
bool has_glyph(std::uint32_t code) {
  constexpr struct {
    std::uint32_t first, last;
  } kWithout[] = {{0x00, 0x1f},     {0x7f, 0x9f},       {0xad, 0xad},     {0x61c, 0x61c},
                  {0x200b, 0x200f}, {0x2028, 0x202e},   {0x2060, 0x206f}, {0xfeff, 0xfeff},
                  {0xfff0, 0xffff}, {0xe0000, 0x10ffff}};
  return std::none_of(std::begin(kWithout), std::end(kWithout),
                      [code](const auto& range) { return code >= range.first && code <= range.last; });
}

std::string escaped(const std::string& text, bool utf8) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = utf8_length(text, at);
    if (length > 0 && (length == 1 || utf8) && has_glyph(code_point(text, at, length))) {
      result.append(text, at, length);
      at += length;
      continue;
    }
    const std::uint32_t byte = byte_at(text, at++);
    result.append("\\x").append(1, kDigits[byte >> 4U]).append(1, kDigits[byte & 0xfU]);
  }
  return result;
}

}  // namespace

bool locale_has_utf8() {
  const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
  if (locale == nullptr) return false;
  const bool utf8 = std::strcmp(nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
  freelocale(locale);
  return utf8;
}

std::uint32_t code_point(const std::string& text, std::size_t at, std::size_t length) {
  std::uint32_t code = length == 1 ? byte_at(text, at) : byte_at(text, at) & (0x7fU >> length);
  for (std::size_t i = 1; i < length; ++i) code = code << 6U | (byte_at(text, at + i) & 0x3fU);
  return code;
}

std::size_t utf8_length(const std::string& text, std::size_t at) {
  const std::uint32_t first = byte_at(text, at);
  const std::size_t length = first < 0x80 ? 1 : first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (length < 2) return length;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte_at(text, at + i) & 0xc0U) != 0x80) return 0;
  }
  const std::uint32_t code = code_point(text, at, length);
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = code >= 0xd800 && code <= 0xdfff;
  return code < kLeast[length] || surrogate || code > 0x10ffff ? 0 : length;
}

std::string printable(const std::string& text) { return escaped(text, false); }

std::string readable(const std::string& text) {
  static const bool utf8 = locale_has_utf8();
  return escaped(text, utf8);
}

std::string local_time(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts = {};
  if (localtime_r(&time, &parts) == nullptr) return "-";
  char text[64] = "";
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts)};
}

}  // namespace console
