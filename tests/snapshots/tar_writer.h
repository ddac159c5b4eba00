#pragma once

// Archives that no tar would write.

#include <algorithm>
#include <cstdio>
#include <string>

namespace test {

/// One member, as its header says it.
struct TarMember {
  std::string name;
  char type = '0';
  std::string content = {};
  std::string link = {};
  unsigned mode = 0644;
  std::string user = {};
  std::size_t time = 1488377100;
};

/// The header and the padded content of a member.
inline std::string tar_member(const TarMember& member) {
  char header[512] = {};
  const auto put = [&header](std::size_t at, std::size_t size, const std::string& text) {
    std::copy_n(text.data(), std::min(size, text.size()), header + at);
  };
  const auto octal = [](std::size_t number, int digits) {
    char text[32];
    std::snprintf(text, sizeof text, "%0*zo", digits, number);
    return std::string(text);
  };
  put(0, 100, member.name);
  put(100, 8, octal(member.mode, 7));
  put(108, 8, octal(0, 7));
  put(116, 8, octal(0, 7));
  put(124, 12, octal(member.content.size(), 11));
  put(136, 12, octal(member.time, 11));
  put(148, 8, "        ");
  header[156] = member.type;
  put(157, 100, member.link);
  put(257, 8, std::string("ustar\00000", 8));
  put(265, 32, member.user);
  std::size_t sum = 0;
  for (const char byte : header) sum += static_cast<unsigned char>(byte);
  put(148, 8, octal(sum, 6) + std::string("\0 ", 2));
  std::string padded = member.content;
  padded.resize((padded.size() + 511) / 512 * 512);
  return padded.insert(0, header, sizeof header);
}

/// The two blocks that end an archive.
inline const std::string& tar_end() {
  static const std::string blocks(1024, '\0');
  return blocks;
}

}  // namespace test
