// Damaged and forged export files are imported: all that is stored is in order, or nothing is stored.

#include <sys/stat.h>

#include "archives.h"
#include "confsave/snapshots.h"
#include "pieces.h"
#include "snapshots/notes.h"

namespace {

using namespace ConfSave::snapshots;

std::string exported() { return fuzz::root() + "/exported"; }
std::string notes_file() { return fuzz::root() + "/state/notes.db"; }

/// The files of a small export: whole, as the campaign damages it, and the storage that it is imported
/// into.
struct Files {
  std::string whole;
  std::string storage;
};

/// A manifest that fits the archives of "weekly".
void write_manifest() {
  const auto weekly = find({"weekly"});
  const auto stored = members({"weekly"});
  auto notes = Notes::open_to_write(std::chrono::milliseconds(1000));
  fuzz::demand(weekly && stored && notes);
  Manifest manifest;
  for (const Member& member : *stored) manifest.tree.members[member.path] = {member, {}};
  manifest.missing = {"/mnt/main/etc/missing"};
  manifest.parents = {{fuzz::root() + "/config/user", {0755, 0, 0}}};
  fuzz::demand(notes->replace_manifest(*weekly, {"before", "me", true}, manifest).code == Code::ok);
}

const Files& files() {
  static const Files made = [] {
    fuzz::make_live_configuration();
    fuzz::make_storage();
    fuzz::Writer(notes_file()).run("pragma page_size=512");
    write_manifest();
    fuzz::demand(static_cast<bool>(export_to({{"weekly"}, {"other"}}, exported())));
    const std::string whole = fuzz::read(exported());
    fuzz::demand(ConfSave::snapshots::remove({"weekly"}, {true, std::chrono::milliseconds(1000)}).code ==
                 Code::ok);
    fuzz::Writer(fuzz::database()).run("update Config set name = 'kept'");
    return Files{whole, fuzz::read(fuzz::database())};
  }();
  return made;
}

/// Text as SQLite reads it within a statement.
std::string quoted(const std::string& text) {
  std::string result = "'";
  for (const char letter : text) {
    if (letter != '\0') result += letter == '\'' ? std::string("''") : std::string(1, letter);
  }
  return result + "'";
}

std::string value(fuzz::Pieces& pieces) {
  static const char* const values[] = {
      "null", "0", "-1", "1", "3", "4", "2048", "1e300", "zeroblob(9)", "x'1f8b'", "4294967296000000"};
  const std::uint8_t number = pieces.byte();
  return number % 16 < std::size(values) ? values[number % 16] : quoted(pieces.text());
}

/// A statement that may fail.
void try_statement(const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_open(exported().c_str(), &db);
  sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

void forge_value(fuzz::Pieces& pieces) {
  static const char* const columns[] = {
      "Config set id",           "Config set name",      "Config set version", "Config set type",
      "Config set save_time",    "Config set load_time", "Config set keybase", "Config set etc",
      "note set comment",        "note set author",      "note set pinned",    "note set id",
      "manifest set members",    "member set path",      "member set kind",    "member set mode",
      "member set uid",          "member set size",      "member set sha256",  "member set target",
      "member set secret",       "missing set path",     "parent set path",    "parent set mode",
      "origin set configuration"};
  const std::string column = columns[pieces.byte() % std::size(columns)];
  const std::string rows = pieces.byte() % 2 == 0 ? "" : " where rowid = 1";
  try_statement("update " + column + " = " + value(pieces) + rows);
}

void forge_archive(fuzz::Pieces& pieces) {
  static const std::string tar = fuzz::tar(archive_write_set_format_gnutar);
  const bool is_failover = pieces.byte() % 4 == 0;
  const std::string packed = fuzz::gzip(fuzz::damaged(is_failover ? fuzz::etc_tar() : tar, pieces));
  fuzz::Writer(exported())
      .run(is_failover ? "update Config set etc = ? where name = 'other'"
                       : "update Config set keybase = ? where name = 'other'",
           packed);
}

/// Damage to the file itself, to a value, or to what an archive holds.
void make_file(fuzz::Pieces& pieces) {
  const std::uint8_t how = pieces.byte() % 4;
  fuzz::write(exported(), how == 0 ? fuzz::damaged(files().whole, pieces) : files().whole);
  if (how == 1) forge_archive(pieces);
  while (how > 1 && !pieces.is_empty()) forge_value(pieces);
}

void demand_order(const Snapshot& stored) {
  const auto& config = stored.config;
  fuzz::demand(!config.name.empty() && config.name.size() <= 80 &&
               config.name.find_first_not_of(ConfSave::VALID_NAME_CHARS) == std::string::npos);
  const Id id{config.name, config.vers};
  const auto verdict = verify(id);
  fuzz::demand(verdict &&
               (verdict->state == Verdict::State::intact || verdict->state == Verdict::State::unproven));
  const auto found = members(id);
  fuzz::demand(static_cast<bool>(found));
  for (const Member& member : *found) {
    fuzz::demand(member.kind == Kind::directory || (member.mode & (S_ISUID | S_ISGID)) == 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const bool is_whole = size == 0;
  fuzz::Pieces pieces(data, size);
  make_file(pieces);
  const std::string file = fuzz::read(exported());
  fuzz::write(fuzz::database(), files().storage);
  std::filesystem::remove(notes_file());

  const auto imported = import_from(exported());
  fuzz::demand(fuzz::read(exported()) == file);
  const auto all = list();
  fuzz::demand(static_cast<bool>(all));
  if (imported) {
    fuzz::demand(all->size() == imported->snapshots.size() + 1);
    for (const Snapshot& stored : imported->snapshots) demand_order(stored);
  } else {
    fuzz::demand(!imported.error().text.empty());
    fuzz::demand(fuzz::read(fuzz::database()) == files().storage);
  }
  fuzz::demand(verify({"kept"}) && all->front().config.name == "kept");
  fuzz::demand(!is_whole || (imported && imported->snapshots.size() == 2 && imported->warnings.empty()));
  fuzz::demand(std::filesystem::is_empty(fuzz::root() + "/temp"));
  std::filesystem::remove(exported() + "-journal");
  return 0;
}
