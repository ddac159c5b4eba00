#include "contents.h"

#include <algorithm>
#include <utility>

#include "places.h"

namespace ConfSave {
namespace {

using Types = std::vector<conftype>;

/// One line of the table. With a `file`, `text` is what follows the platform's name for that number.
struct Line {
  int file;
  const char* text;
  enum { kAll, kNotCorlu, kFull, kNever } packed;
  Holds holds;
};

constexpr Line kConfiguration[] = {
    {1, "", Line::kAll, Holds::settings},
    {4, "*", Line::kAll, Holds::keys},
    {9, "", Line::kAll, Holds::settings},
    {10, "", Line::kAll, Holds::settings},
    {11, "", Line::kAll, Holds::settings},
    {12, "", Line::kAll, Holds::settings},
    {17, "", Line::kAll, Holds::settings},
    {18, "", Line::kAll, Holds::settings},
    {19, "", Line::kAll, Holds::settings},
    {20, "", Line::kAll, Holds::settings},
    // The database's own journal is deleted with it, but never packed. // Quirk Q26
    {29, "", Line::kNever, Holds::database},
    {30, "", Line::kAll, Holds::database},
    {31, "", Line::kAll, Holds::database},
    {0, "user/kwtp.conf", Line::kNotCorlu, Holds::settings},
    {0, "user/upgrade.conf", Line::kAll, Holds::settings},
    {0, "user/corlucfg-config.crg", Line::kAll, Holds::settings},
    {0, "user/kwtpd-config.crg", Line::kNotCorlu, Holds::settings},
    // The description of the network.
    {0, "gw*", Line::kFull, Holds::settings},
    {0, "peer*", Line::kFull, Holds::settings},
    {0, "outnet*", Line::kFull, Holds::settings},
    {0, "remote.txt", Line::kFull, Holds::settings},
    {0, "quelvian.re", Line::kFull, Holds::settings},
    {0, "corluadr*", Line::kFull, Holds::settings},
    {0, "linkmap.dat", Line::kFull, Holds::settings},
    {0, "station", Line::kFull, Holds::settings},
    {0, "user/key_set", Line::kFull, Holds::keys},
    {0, "hub/out", Line::kFull, Holds::keys},
    {0, "hub/old", Line::kFull, Holds::keys},
    {0, "hub/key", Line::kFull, Holds::keys},
};

constexpr Line kFailover[] = {
    {0, "failover.ini", Line::kNotCorlu, Holds::settings},
    {0, "failover.ini.crg", Line::kNotCorlu, Holds::settings},
    {0, "failoverd-config.crg", Line::kNotCorlu, Holds::settings},
};

std::string path_of(const Line& line) {
  return line.file != 0 ? "user/" + user_file(line.file) + line.text : line.text;
}

Types types_of(const Line& line) {
  switch (line.packed) {
    case Line::kAll:
      return {conf_full, conf_part, conf_corlu};
    case Line::kNotCorlu:
      return {conf_full, conf_part};
    case Line::kFull:
      return {conf_full};
    case Line::kNever:
      break;
  }
  return {};
}

std::vector<std::string> database_files(const std::string& dir, bool packed_only) {
  std::vector<std::string> files;
  for (const Line& line : kConfiguration) {
    if (line.holds != Holds::database || (packed_only && line.packed == Line::kNever)) continue;
    // `dir` brings its own "/". // Quirk Q34
    files.push_back(dir + path_of(line));
  }
  return files;
}

}  // namespace

std::vector<ContentsEntry> contents() {
  std::vector<ContentsEntry> entries;
  const auto append = [&entries](Base base, const Line& line) {
    entries.push_back({base, path_of(line), types_of(line), line.holds});
  };
  for (const Line& line : kConfiguration) append(Base::configuration, line);
  for (const Line& line : kFailover) append(Base::failover, line);
  return entries;
}

bool belongs_to(const ContentsEntry& entry, conftype type) {
  const conftype known = type == conf_full || type == conf_corlu ? type : conf_part;
  return std::find(entry.types.begin(), entry.types.end(), known) != entry.types.end();
}

std::string packing_list(Base base, conftype type, bool with_database) {
  std::string list;
  for (const ContentsEntry& entry : contents()) {
    const bool left_out = entry.holds == Holds::database && !with_database;
    if (entry.base == base && belongs_to(entry, type) && !left_out) list += " " + entry.path;
  }
  return list;
}

std::vector<std::string> database_files(const std::string& dir) { return database_files(dir, false); }

std::vector<std::string> packed_database_files(const std::string& dir) { return database_files(dir, true); }

}  // namespace ConfSave
