#pragma once

// The gateway of the campaign `memory`: what is stored and what is configured, whole, before and after.
// Stored are files that say "old"; the live ones say "new".

#include <confsave.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>

struct Row {
  long type = 0;
  std::string keybase;
  std::string etc;
  std::string load_time;  ///< empty for none
};

using Key = std::pair<std::string, ConfSave::int64>;
using Rows = std::map<Key, Row>;
using Tree = std::map<std::string, std::string>;  ///< path below its root, and contents

class MemoryGateway {
 public:
  explicit MemoryGateway(std::filesystem::path root);

  const std::filesystem::path& root() const { return root_; }
  std::string target() const { return (root_ / "target/").string(); }
  const Rows& stored() const { return stored_; }

  /// Everything as it was when this was made, the target empty.
  void restore();

  Rows rows() const;
  /// True if the row can only be the live configuration, packed whole.
  bool is_new(const Row& row);

  /// What is wrong with the files: one that is neither the live one nor, where it may be loaded,
  /// the stored one; one that is gone, except the configuration database's; or one of another name.
  std::string flaw_of_live_files(bool may_be_loaded) const;
  std::string flaw_of_target(bool may_be_loaded, bool must_be_whole) const;

  bool is_sound() const;
  bool lock_is_free() const;
  long open_files() const;

 private:
  bool unpacks_to(const std::string& archive, const Tree& expected);

  std::filesystem::path root_;
  Rows stored_;
  std::set<std::pair<std::string, Tree>> unpacked_;
};
