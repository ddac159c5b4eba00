#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "confsave/snapshots.h"
#include "support/gateway.h"

namespace test {

namespace cs = ConfSave::snapshots;

/// A gateway with a configuration that is about to be saved.
class Saving : public Gateway {
 protected:
  Saving() { make_configuration(); }

  static std::string shown(const cs::Error& error) {
    return std::to_string(static_cast<int>(error.code)) + " " + error.path + ": " + error.text;
  }

  /// What was saved, after a check that it was.
  static cs::Saved saved(const std::string& name, const cs::SaveOptions& options = {}) {
    const auto result = cs::save({name}, options);
    EXPECT_TRUE(result) << shown(result ? cs::Error{} : result.error());
    return result ? *result : cs::Saved{};
  }

  static cs::Error failure(const cs::Id& id, const cs::SaveOptions& options = {}) {
    const auto result = cs::save(id, options);
    return result ? cs::Error{} : result.error();
  }

  static cs::Code code(const std::string& name, const cs::SaveOptions& options = {}) {
    return failure({name}, options).code;
  }

  static cs::SaveOptions overwrite() {
    cs::SaveOptions options;
    options.overwrite = true;
    return options;
  }

  static cs::SaveOptions if_changed() {
    cs::SaveOptions options;
    options.if_changed = true;
    return options;
  }

  static cs::SaveOptions of_type(ConfSave::conftype type) {
    cs::SaveOptions options;
    options.type = type;
    return options;
  }

  static cs::SaveOptions waiting(int milliseconds) {
    cs::SaveOptions options;
    options.overwrite = true;
    options.wait = std::chrono::milliseconds(milliseconds);
    return options;
  }

  /// The names of the rows, the oldest first.
  Texts stored() const {
    Texts names;
    if (!exists(database())) return names;
    for (const Texts& row : Database(database()).query("select name from Config order by id")) {
      names.push_back(row.at(0));
    }
    return names;
  }

  /// True if the row holds the live configuration.
  static bool is_live(const std::string& name) {
    const auto differences = cs::compare({name}, cs::Live());
    return differences && differences->empty();
  }

  std::string config(const std::string& name) const { return config_dir() + name; }
  std::string notes_file() const { return state_dir() + "/notes.db"; }
  std::string lock_file() const { return state_dir() + "/confsave.lock"; }

  /// Calls `change` after each command that packs the configuration directory, and counts those commands.
  void after_packing(const std::function<void(int)>& change) {
    packings = 0;
    host.on_command = [this, change](const std::string& command) -> std::optional<int> {
      if (command.find("cd " + config_dir()) != 0) return {};
      const int result = shell(command);
      change(++packings);
      return result;
    };
  }

  int packings = 0;
};

}  // namespace test
