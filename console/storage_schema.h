#pragma once

namespace console {

/// True if "Config" in the storage is something else than a table of its own: a view or a virtual table,
/// which can run for ever when it is read. False when there is none, and when the storage cannot be read.
bool has_foreign_config();

}  // namespace console
