#pragma once

struct sqlite3;

namespace ConfSave::sql {

/// Makes what is none of the storage's business impossible on this connection, whatever a name that was
/// pasted into a statement says: such a statement is refused like any other that SQLite does not take.
/// Nothing that the storage's own statements do is affected, nor triggers that a database brings along.
void guard(sqlite3* db);

}  // namespace ConfSave::sql
