#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <string>

#include "snapshots/saving.h"

namespace test {

/// A gateway with a snapshot "weekly" of its configuration, which is about to be restored.
class Restoring : public Saving {
 protected:
  Restoring() {
    saved("weekly");
    saved_ = everything();
  }
  ~Restoring() override {
    EXPECT_EQ(staging_directories(), Texts());
    expect_nothing_held();
  }

  /// The five columns, as a person reads them.
  static std::string shown(const cs::PlannedChange& change) {
    const cs::Difference& difference = change.difference;
    if (change.action == cs::Action::create) return "+.... " + difference.path;
    if (change.action == cs::Action::remove) return "-.... " + difference.path;
    const std::string content = change.action == cs::Action::replace ? "c" : ".";
    const auto column = [](bool differs, const char* letter) { return differs ? letter : "."; };
    return content + column(difference.mode, "p") + column(difference.owner, "u") +
           column(difference.group, "g") + column(difference.time, "t") + " " + difference.path;
  }
  using Saving::shown;

  /// With "<config>/" for the configuration directory.
  Texts lines(const cs::Plan& plan) const {
    Texts result;
    for (const cs::PlannedChange& change : plan.changes) result.push_back(without_root(shown(change)));
    return result;
  }

  Texts planned(const cs::RestoreOptions& options = {}) const {
    const auto plan = cs::plan({"weekly"}, options);
    return plan ? lines(*plan) : Texts{without_root(shown(plan.error()))};
  }

  /// What restoring did, after a check that it is what was planned.
  cs::Restored restored(cs::RestoreOptions options = {}) const {
    options.keep = false;
    const Texts before = planned(options);
    const auto result = cs::restore({"weekly"}, options);
    EXPECT_TRUE(result) << shown(result ? cs::Error{} : result.error());
    if (!result) return {};
    EXPECT_EQ(lines(result->plan), before);
    EXPECT_EQ(result->warnings, Texts());
    const auto after = cs::plan({"weekly"}, options);
    EXPECT_TRUE(after && after->changes.empty()) << (after ? lines(*after).front() : shown(after.error()));
    return *result;
  }

  static cs::Error refused(const cs::RestoreOptions& options = {}) {
    const auto result = cs::restore({"weekly"}, options);
    return result ? cs::Error{} : result.error();
  }

  /// Of a file in a snapshot; or why it cannot be read.
  static std::string content(const std::string& name, const std::string& path) {
    std::string content;
    const auto error = cs::read_file({name}, path, [&content](std::string_view piece) {
      content += piece;
      return cs::Error{};
    });
    return error.code == cs::Code::ok ? content : error.text;
  }

  static cs::RestoreOptions exactly() {
    cs::RestoreOptions options;
    options.exact = true;
    return options;
  }

  static cs::RestoreOptions without_keeping() {
    cs::RestoreOptions options;
    options.keep = false;
    return options;
  }

  std::string without_root(std::string text) const {
    for (std::size_t at = 0; (at = text.find(config_dir(), at)) != std::string::npos;) {
      text.replace(at, config_dir().size(), "<config>/");
    }
    return text;
  }

  /// Both directories without staging directories: kind, mode, owner, and of all but directories content,
  /// time and inode, by path.
  std::map<std::string, std::string> everything(bool with_inodes = false) const {
    std::map<std::string, std::string> result;
    for (const std::string& directory : {config_dir(), etc_dir()}) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        const std::string path = without_root(entry.path());
        const bool is_staged = path.find("/.confsave-restore-") != std::string::npos;
        if (!is_staged) result[path] = described(entry.path(), with_inodes);
      }
    }
    return result;
  }

  static std::string described(const std::filesystem::path& path, bool with_inode) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return "gone";
    std::string text = std::to_string(status.st_mode) + " " + std::to_string(status.st_uid) + ":" +
                       std::to_string(status.st_gid);
    if (with_inode) text += " #" + std::to_string(status.st_ino);
    if (S_ISDIR(status.st_mode)) return text;
    text += " " + std::to_string(status.st_mtim.tv_sec) + " ";
    return text +
           (S_ISLNK(status.st_mode) ? std::filesystem::read_symlink(path).string() : read_file(path));
  }

  Texts staging_directories() const {
    Texts found;
    for (const std::string& directory : {config_dir(), etc_dir()}) {
      for (const std::string& name : names_in(directory)) {
        if (name.find(".confsave-restore-") == 0) found.push_back(name);
      }
    }
    return found;
  }

  std::map<std::string, std::string> saved_;
};

}  // namespace test
