#pragma once

namespace console {

/// True if "Config" in the storage is a view or a virtual table, which can run for ever when it is read.
/// False if "Config" is a table or missing, and if the storage cannot be read.
bool has_foreign_config();

}  // namespace console
