#pragma once

#include <optional>
#include <string>

#include "snapshots/database.h"

namespace ConfSave::snapshots {

/// What the archives of a row hold, as they are stored. An archive that is NULL has no digest.
struct ArchiveDigests {
  std::optional<Digest> keybase;
  std::optional<Digest> etc;
};

/// A row that is to be copied.
struct RowToCopy {
  int64 rowid = 0;
  std::optional<std::string> name = {};     ///< instead of its own
  bool keep_id = false;                     ///< else it gets a new one
  std::optional<int64> id = {};             ///< which; no value: SQLite chooses
  const ArchiveDigests* digests = nullptr;  ///< what the archives must hold
};

/// Copies one row of 'Config' with all its values as they are, and reads the archives back. SQLite holds
/// the archives of the row in memory, up to twice. The caller has begun a transaction on both sides.
/// Returns the new id.
Result<int64> copy_row(Database& from, const RowToCopy& row, Database& to);

/// Reads the archive in column `column` of a row; no value if it is NULL.
Result<std::optional<Digest>> digest_of(Database& database, const char* column, int64 rowid);

}  // namespace ConfSave::snapshots
