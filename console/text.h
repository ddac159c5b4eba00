#pragma once

#include <cstdint>
#include <string>

namespace console {

/// Bytes of the valid UTF-8 character that begins at `text[at]`; 0 when none begins there.
std::size_t utf8_length(const std::string& text, std::size_t at);

/// Whether the locale of the environment has UTF-8.
bool locale_has_utf8();

/// The number of the valid character of `length` bytes at `text[at]`.
std::uint32_t code_point(const std::string& text, std::size_t at, std::size_t length);

/// `text` with every byte that is not a printable ASCII character as "\xNN".
std::string printable(const std::string& text);

/// The same, but where the locale has UTF-8 with its letters as they are. Characters that control a
/// terminal or the direction of writing are not letters.
std::string readable(const std::string& text);

/// "YYYY-MM-DD HH:MM:SS" in local time; "-" for a time that has no date.
std::string local_time(std::int64_t seconds);

}  // namespace console
