#pragma once

#include <functional>
#include <optional>
#include <string>

#include "snapshots/database.h"
#include "snapshots/deadline.h"
#include "snapshots/packing.h"

namespace ConfSave::snapshots {

/// A row that is about to be stored.
struct NewRow {
  std::string name;
  int64 version = 0;
  conftype type = conf_none;
  int64 save_time = 0;
  Packed archives;
};

/// What storing a row did.
struct Stored {
  Snapshot snapshot;  ///< the row as it was looked up; without notes
  bool replaced = false;
  int64 replaced_id = 0;  ///< of the row that went
};

/// Asked in the transaction about the row that would go; its id, save time and sizes are known. An error
/// ends the transaction.
using MayReplace = std::function<Error(const Snapshot& old)>;

/// Writes rows into "storage.db" that nobody can tell from those of the contract library. All waiting ends
/// at the deadline.
class StorageWriter {
 public:
  /// Makes the file, mode 0600 under any umask, unless it exists.
  static Result<StorageWriter> open(const Deadline& deadline);

  /// Stores `row`, durably, in place of the row of its name and version, if that may go. The archives are
  /// read back and the row is looked up before the commit, and then `before_commit` is called. After an
  /// error, its own too, the storage is unchanged, unless that is Aftermath::perhaps_done. The pages of
  /// the old row stay free in the file, with their content, until other rows use them or a deletion gives
  /// them back.
  Result<Stored> store(NewRow row, const MayReplace& may_replace,
                       const std::function<Error(const Stored&)>& before_commit);

  /// Runs `change` in one transaction in which the table exists; durable on return. After an error the
  /// storage is unchanged. But a commit can fail after it took effect, for example when the directory is
  /// synced: if `last`, a row that `change` has stored, may be there, that is Aftermath::perhaps_done.
  Error in_transaction(const std::function<Error()>& change, const Snapshot& last);

  /// Within a transaction: deletes the row of this name and version, if it may go, and returns its id.
  Result<std::optional<int64>> make_room(const Id& id, const MayReplace& may_replace);

  /// Then: the id for a new row, so that it does not get `old`, whose note stays until the commit; no
  /// value: SQLite chooses. Only the key of a table that another program has made uses an id again.
  Result<std::optional<int64>> id_above(int64 old);

  Database& database() { return database_; }

 private:
  StorageWriter(Database database, const Deadline& deadline)
      : database_(std::move(database)), deadline_(deadline) {}

  /// What an empty file gets before its table, as the contract library does it.
  Error choose_layout();
  Error make_table();
  bool may_have(const Snapshot& row);
  Result<std::optional<int64>> find_old(const Id& id, const MayReplace& may_replace);
  Error store_in_transaction(NewRow& row, const MayReplace& may_replace, Stored& stored);
  Result<bool> put(const NewRow& row, std::optional<int64> old);
  Result<bool> insert_aside(const NewRow& row);
  enum class Name { text, blob };
  Error insert(const NewRow& row, Name as, std::optional<int64> id);
  Error read_back(const Packed& archives, int64 rowid);
  Error remove(const Id& id);
  Error take_place(const Id& id, int64 rowid);
  Error look_up(const NewRow& row, int64 rowid, Snapshot& snapshot);
  Error compare_archive(const char* column, int64 rowid, const std::vector<char>& archive);
  /// A refusal by a rule that only the table of another program has.
  Error error() const;

  Database database_;
  Deadline deadline_;
};

}  // namespace ConfSave::snapshots
