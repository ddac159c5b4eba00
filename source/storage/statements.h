#pragma once

// The texts of the statements that the storage runs, exact to the blank. Names, patterns and orders are
// pasted unchanged; numbers are decimal under any locale. // Quirk Q6, Q54

#include <string>

#include "confsave.h"

namespace ConfSave::sql {

/// For a new file. SQLite then knows where each page belongs: a listing skips the archives instead of
/// following them page by page, and larger pages are fewer to skip.
inline constexpr const char* kChooseLayout = "pragma page_size=8192; pragma auto_vacuum=incremental";
std::string create_table();
/// SQLite's message when create_table() finds the table.
std::string table_exists_error();
std::string count_rows(const std::string& name, int64 version);
std::string delete_row(const std::string& name, int64 version);
/// Parameter 1 is the keybase archive, parameter 2 the etc archive.
std::string insert_row(const std::string& name, int64 version, int64 save_time, conftype type);
std::string select_row(const std::string& name, int64 version, bool skip_corlu);
std::string stamp_load_time(int64 id, int64 load_time);
std::string list_rows(int64 version, const std::string& order_by, bool skip_corlu);
std::string find_rows(const std::string& pattern, int64 version, bool skip_corlu);

}  // namespace ConfSave::sql
