#pragma once

#include <set>
#include <string>
#include <vector>

#include "snapshots/site.h"

namespace ConfSave::snapshots {

/// Which file `name` is; nothing with errno if it does not exist, or cannot be looked at.
Identity look(int directory, const std::string& name);

/// Renames unless `to` exists. -1 with errno.
int move(int from, const std::string& old_name, int to, const std::string& new_name);

/// Whether mode and owner are these.
bool has_attributes(const struct stat& status, const Attributes& attributes);

/// What to do about a file that is neither the one of before nor the staged one.
enum class Foreign {
  leave,      ///< leave everything as it is, and report it
  set_aside,  ///< move it into the staging directory
};

/// What stays in a staging directory.
struct Left {
  std::string path;
  std::string live;  ///< where it was; empty of a whole directory
};

/// Lets staged and live files change places, and back. The slot of a step is the file in the staging
/// directory whose name is the number of the step: the staged file at first, then the old one.
///
/// Nothing here trusts that a file exists: what it is decides, by inode.
class Exchange {
 public:
  /// Both outlive this object.
  Exchange(std::vector<Site>& sites, const std::vector<Step>& steps) : sites_(sites), steps_(steps) {}

  /// Does step `number`. Code::changed_meanwhile if the file that comes out is not the one of before: it
  /// is put back then.
  Error apply(std::size_t number);

  /// Undoes step `number`, whether it was done or not.
  Error undo(std::size_t number, Foreign foreign);

  /// What undone steps have left as it is, because it is somebody's work, and why.
  const std::vector<std::string>& kept() const { return kept_; }

  /// Does all steps, and makes them durable.
  Error apply_all();

  /// Code::changed_meanwhile if a directory in which files were moved, or a destination, is not at its path
  /// any more.
  Error check_directories();

  /// Makes everything that was moved durable.
  Error sync();

  /// Whether the undo of a step shows: then an undo has begun, whatever was recorded.
  Result<bool> has_undone_step();

  /// Code::needs_attention if a file of before is still in its slot, and not in its place.
  Error check_undone();

  /// Deletes the staging directories with what steps have left in them. Files that no step knows, or that
  /// changed since, stay, and go into `left`. The error is about a file that should have gone.
  Error sweep(std::vector<Left>& left);

 private:
  struct Slot {
    int staging;
    std::string name;      ///< where the staged file is, and after an exchange the old one
    std::string old_name;  ///< where the old one is if the file system cannot exchange
    std::string aside;     ///< for what had to make room
  };

  Slot slot_of(std::size_t number) const;
  /// Whether the file of this name in the staging directory is that one.
  Result<bool> is_in_staging(const Step& step, const std::string& name, const Identity& file);
  Error put(std::size_t number, int parent, const std::string& name);
  Error put_without_exchange(const Step& step, const Slot& slot, int parent, const std::string& name);
  Error take_away(std::size_t number, int parent, const std::string& name);
  Error set_attributes(const Step& step, const Attributes& attributes, const std::string& access,
                       int64 time);
  Error apply_attributes(const Step& step);
  Error undo_attributes(const Step& step, Foreign foreign);
  Error undo_move(std::size_t number, Foreign foreign);
  Error undo_creation(const Step& step, const Slot& slot, const Identity& live, Foreign foreign);
  Error keep_directory(const Step& step, const Identity& live);
  Error put_back(const Step& step, const Slot& slot, const std::string& from, bool is_occupied);
  Error set_logs_aside(const Step& step, const Slot& slot);
  bool is_of_a_step(std::size_t root, const std::string& path, const Identity& live) const;
  Error compare_with_before(const Slot& slot, const std::string& name, const Step& step) const;
  Error changed(const Step& step) const;
  Error foreign_file(const Step& step, const std::string& slot) const;
  bool is_moved_away(std::size_t root, const std::string& directory) const;
  void empty_staged(std::size_t number, const std::string& name);
  void sweep_logs(const Step& step, const Slot& slot, std::vector<Left>& left) const;
  Error sweep_slot(std::size_t number, std::vector<Left>& left);
  static Error sweep_numbers(Site& site);
  void touch(const Step& step);

  std::vector<Site>& sites_;
  const std::vector<Step>& steps_;
  std::vector<std::set<std::string>> touched_;  ///< directories by site
  std::vector<std::string> kept_;
};

}  // namespace ConfSave::snapshots
