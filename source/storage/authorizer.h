#pragma once

struct sqlite3;

namespace ConfSave::sql {

/// Denies schema changes other than making the storage's own table, pragmas, attachments, loading code, and
/// updates of columns other than `load_time`, whatever a pasted name makes of a statement. SQLite then
/// refuses the statement when it prepares it. What a trigger or a virtual table of the database runs is not
/// restricted, except attachments, loading code, and in triggers reading pragma functions. // Quirk Q63
void install_authorizer(sqlite3* db);

}  // namespace ConfSave::sql
