#pragma once

#include <functional>
#include <string>

#include "snapshots/database.h"

namespace ConfSave::snapshots {

/// Room for the journal of a deletion on a full disk: the file "storage.db-reserve" beside the storage.
///
/// SQLite writes a journal before it changes a page, so a full disk refuses even what would make room. The
/// reserve becomes the journal: it is renamed to the journal's name, so that no other process can take the
/// blocks in between. Its first bytes are zeros then, by which SQLite sees that there is nothing to roll
/// back.
class Reserve {
 public:
  /// More than the journal of deleting a row of 400 MiB.
  static constexpr int64 kSize = int64{1} << 20;

  /// Makes the file beside `storage` unless it is there, or the disk has little room. Failure is ignored:
  /// only a deletion on a full disk needs it.
  static void keep(const std::string& storage);

  /// For `storage`, which must outlive this object.
  explicit Reserve(Database& storage) : storage_(storage) {}

  /// Runs `change` in a transaction of its own. On a full disk again with the reserve as the journal, and
  /// again with the reserve deleted, for a file system that writes nothing in place.
  Error run(const std::function<Error()>& change);

  /// True since a transaction did not fit on the disk: the next ones should have a small journal.
  bool is_needed() const { return use_ != Use::none; }

  /// Makes the journal the reserve again. What fails here leaves an empty journal, which the next writer
  /// deletes.
  void take_back();

 private:
  enum class Use { none, journal, deleted };

  Error attempt(const std::function<Error()>& change);
  /// Prepares the next way. False after the last one.
  bool give_way();
  void become_journal();

  Database& storage_;
  Use use_ = Use::none;
};

}  // namespace ConfSave::snapshots
