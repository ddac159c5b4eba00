#pragma once

// Autosaves: the names that they get from the clock, and the fixture of their tests.

#include <ctime>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "confsave.h"
#include "support/dialogue.h"

namespace test {

using SystemLog = std::vector<std::pair<int, std::string>>;

inline const Function kSaveIfUnique{
    "bool ConfSave::save_if_unique(ConfSave::Storage&, const string&, ConfSave::conftype)",
    "save_if_unique", "source/freefunc"};
inline const Function kCleanAutosaves{"void ConfSave::CleanAutosaves(ConfSave::Storage&, unsigned int)",
                                      "CleanAutosaves", "source/freefunc"};

inline const std::string kFindAutosaves =
    "select id, name, type, version, save_time, load_time from 'Config' where name!='corlu-config' and "
    "name glob 'autosave*'";

/// The record of the cleaning, `text` for its two numbers.
inline LogRecord cleaning(const std::string& text) { return says(kCleanAutosaves, 4, text, {4, 8}); }

/// The record of a delete.
inline LogRecord deleting(const std::string& name) {
  return says(kDelete, 4, "config name '" + name + "'");
}

/// The record of an autosave of the current version that cannot be deleted.
inline LogRecord undeleted(const std::string& name, const std::string& version = "4.5.4") {
  return says(kCleanAutosaves, 1, "Failed to delete old confsave '" + name + "' (version " + version + ")");
}

/// The line of the system log about a deleted autosave.
inline std::pair<int, std::string> deleted(const std::string& name, const std::string& version = "4.5.4") {
  return {6, "Deleted old confsave '" + name + "' (version " + version + ")"};
}

/// The record of a saved name.
inline LogRecord saved(const std::string& name) {
  return says(kSaveIfUnique, 4, "config '" + name + "' (version 4.5.4) successfully saved");
}

/// The statements that save a free name.
inline Texts saving(const std::string& name) { return {count_of(name), delete_of(name), insert_of(name)}; }

/// The records of saving a free name, the change of this number on its connection.
inline LogRecords saved_as(const std::string& name, std::size_t change) {
  return {deleting(name),
          says(kCreate, 2, "Try to save configuration '" + name + "' (version 17264017408)", {8}),
          says(kCreate, 4, "sqlite3_total_changes: " + std::to_string(change), {4}), saved(name)};
}

/// A gateway that saves by itself. In all texts of the tests "<now>" stands for the time and
/// "autosave-<now>" for the name of that time.
struct Autosaves : Dialogue {
  /// Runs `call`, which must neither read nor print, and leave nothing behind.
  void run(const std::function<void()>& call);

  void autosave(unsigned limit, ConfSave::conftype type = ConfSave::conf_full,
                const std::string& name = "") {
    run([&] { ConfSave::AutoSave(name, type, limit); });
  }

  bool check_old();

  /// Empties the storage, calls `prepare` with this second and the name that an autosave has in it, and
  /// runs `call`. Starts again if the second ended meanwhile.
  void in_one_second(const std::function<void(std::time_t, const std::string&)>& prepare,
                     const std::function<void()>& call);

  /// Inserts rows of these names and of the current version.
  void put_names(const Texts& names) {
    for (const std::string& name : names) put({name, kCurrent});
  }

  /// Runs a statement without the library.
  void sql(const std::string& text) { Database(database()).run(text); }

  /// Makes a table in which the library's statements know no column.
  void make_foreign_table() { sql("create table Config (colour text)"); }

  /// Makes commands succeed without running, so that saving is quick and archives are empty.
  void pack_nothing() {
    host.on_command = [](const std::string&) { return 0; };
  }

  /// All rows in the order of their ids: name, version, type, save_time, load_time.
  Rows rows() const;

  Texts names() const;
  SystemLog system_log() const;

  using Gateway::without_now;
  std::string without_now(std::string text) const override;
};

}  // namespace test
