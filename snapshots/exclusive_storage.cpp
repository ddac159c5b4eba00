#include "snapshots/exclusive_storage.h"

#include "places.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {

Result<ExclusiveStorage> ExclusiveStorage::open(const Deadline& deadline) {
  Result<Database> database = Database::open(storage_file(), deadline.left());
  if (!database) return database.error();
  Error error = database->sync_deletions();
  if (error.code == Code::ok) error = database->run("begin exclusive");
  if (error.code != Code::ok) return error;
  return ExclusiveStorage(std::move(*database));
}

Error ExclusiveStorage::stamp(const Snapshot& snapshot, int64 time) {
  {
    Result<Statement> statement = database_.prepare(
        "update Config set load_time = ? where id = ? and "
        "ifnull(cast(save_time as integer), 0) = ? and "
        "ifnull(length(keybase), 0) = ? and ifnull(length(etc), 0) = ?");
    if (!statement) return statement.error();
    statement->bind(time).bind(snapshot.id).bind(snapshot.config.save_time);
    statement->bind(snapshot.keybase_size).bind(snapshot.etc_size);
    if (statement->step() != SQLITE_DONE) return database_.error();
  }
  if (sqlite3_changes(database_.get()) != 1) {
    return {Code::changed_meanwhile, 0, "",
            "the snapshot '" + printable(snapshot.config.name) + "' was replaced or deleted"};
  }
  const int code = sqlite3_db_cacheflush(database_.get());
  return code == SQLITE_OK ? Error{} : database_.error(code);
}

Error ExclusiveStorage::commit() { return database_.run("commit"); }

}  // namespace ConfSave::snapshots
