#include <cerrno>
#include <cstring>
#include <iostream>

#include "choosing.h"
#include "columns.h"
#include "exit_status.h"
#include "report.h"
#include "text.h"
#include "verb_functions.h"

namespace console {
namespace {

const char* name_of(cs::Kind kind) {
  switch (kind) {
    case cs::Kind::file:
      return "file";
    case cs::Kind::directory:
      return "directory";
    case cs::Kind::symlink:
      return "symlink";
    case cs::Kind::hardlink:
      break;
  }
  return "hardlink";
}

std::string octal(std::uint32_t mode) {
  std::string digits;
  for (unsigned shift = 12; shift > 0;) {
    shift -= 3;
    digits += static_cast<char>('0' + (mode >> shift & 7U));
  }
  return digits;
}

/// The mode as ls(1) has it: the kind, then the rights of the owner, the group and others.
std::string rights(const cs::Member& member) {
  constexpr const char* kLetters = "rwxrwxrwx";
  constexpr struct {
    std::size_t place;
    std::uint32_t bit;
    char letter;
  } kSpecial[] = {{3, 04000, 's'}, {6, 02000, 's'}, {9, 01000, 't'}};
  std::string text(1, "-dlh"[static_cast<int>(member.kind)]);
  for (unsigned i = 0; i < 9; ++i) text += (member.mode >> (8 - i) & 1U) != 0 ? kLetters[i] : '-';
  for (const auto& special : kSpecial) {
    if ((member.mode & special.bit) == 0) continue;
    char& letter = text[special.place];
    letter = static_cast<char>(letter == 'x' ? special.letter : special.letter - 'a' + 'A');
  }
  return text;
}

std::string hexadecimal(const cs::Digest& digest) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : digest)
    text.append(1, kDigits[byte >> 4U]).append(1, kDigits[byte & 0xfU]);
  return text;
}

Row row_of(const cs::Member& member) {
  const bool is_directory = member.kind == cs::Kind::directory;
  return {rights(member),
          std::to_string(member.uid) + ":" + std::to_string(member.gid),
          std::to_string(member.size),
          local_time(member.time),
          is_directory ? std::string(64, '-') : hexadecimal(member.sha256),
          readable(member.path) + (member.target.empty() ? "" : " -> " + readable(member.target))};
}

Json json_of(const cs::Member& member) {
  Json object;
  object["path"] = json_bytes(member.path);
  object["kind"] = name_of(member.kind);
  object["mode"] = octal(member.mode);
  object["uid"] = member.uid;
  object["gid"] = member.gid;
  object["size"] = member.size;
  object["time"] = member.time;
  object["sha256"] = member.kind == cs::Kind::directory ? Json(nullptr) : Json(hexadecimal(member.sha256));
  return object;
}

int show_members(const cs::Snapshot& snapshot, const Options& options) {
  const auto members = cs::members(id_of(snapshot), {options.deadline.left()});
  if (!members) return report_reading(members.error(), label(snapshot));
  if (options.json) {
    JsonArray array(json_id(snapshot), "members");
    for (const cs::Member& member : *members) array.add(json_of(member));
    array.end();
  } else {
    constexpr std::size_t kSize = 2;
    print_columns({}, *members, row_of, kSize);
  }
  return kDone;
}

int show_file(const cs::Snapshot& snapshot, const Options& options) {
  const std::string& path = options.file;
  const auto print = [](std::string_view piece) {
    if (std::cout.write(piece.data(), static_cast<std::streamsize>(piece.size()))) return cs::Error{};
    return cs::Error{cs::Code::failed, errno, "standard output", std::strerror(errno)};
  };
  const cs::Error error = cs::read_file(id_of(snapshot), path, print, {options.deadline.left()});
  if (error.code == cs::Code::ok) return kDone;
  if (error.code != cs::Code::not_found && error.code != cs::Code::bad_argument)
    return report_reading(error, label(snapshot));
  std::cerr << "confsave: '" << readable(path) << "': " << readable(error.text) << ". 'confsave show "
            << label(snapshot) << "' lists its files.\n";
  return exit_status(error.code);
}

}  // namespace

int show(const Options& options) {
  int status = kDone;
  const auto snapshot = choose(options.snapshot, options, status);
  if (!snapshot) return status;
  return options.file.empty() ? show_members(*snapshot, options) : show_file(*snapshot, options);
}

}  // namespace console
