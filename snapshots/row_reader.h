#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "contents.h"
#include "snapshots/archive_reader.h"
#include "snapshots/content_check.h"
#include "snapshots/deadline.h"
#include "snapshots/storage_reader.h"

namespace ConfSave::snapshots {

/// One of the two archives of a row.
struct Column {
  const char* name;
  Base base;
};

std::vector<Column> columns_of(conftype type);

Error not_found(const std::string& name);

/// Only another program's table can have more than one row of a name and version.
Error several_of(const std::string& name);

/// The row of this name and version, or Code::not_found. With `only`, of several that are listed under them
/// the one with its id.
Result<Snapshot> row_of(StorageReader& reader, const Id& id, const Snapshot* only = nullptr);

/// The row that an Id names and the connection that found it, in one read transaction, so that its archives
/// are of the same moment.
struct OpenRow {
  StorageReader reader;
  Snapshot snapshot;
  int64 rowid = 0;  ///< what SQLite opens archives by; in a foreign table not the column "id"
};

Result<OpenRow> open_row(const Id& id, const Deadline& deadline);

/// Code::damaged unless column `name` holds a value of `type`.
Error check_type(OpenRow& row, const char* name, const std::string& type);

/// Called with the number of packed bytes since the last call.
using PackedProgress = std::function<void(int64)>;

/// Reads one of the archives to its end.
Error read_column(OpenRow& row, const Column& column, const EntryHandler& handler,
                  const PackedProgress& progress = {});

/// The members of both archives by path. With a `check`, compares their content with the live files.
Result<std::map<std::string, Member>> read_contents(OpenRow& row, ContentCheck* check = nullptr);

}  // namespace ConfSave::snapshots
