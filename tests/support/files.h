#pragma once

// Files, directories and archives, for the tests. Each function throws std::runtime_error when it fails.

#include <ctime>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "support/expected.h"

namespace test {

using Bytes = std::vector<char>;

void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);
bool exists(const std::string& path);
/// Removes everything in `dir`.
void empty_directory(const std::string& dir);

/// Relative path -> content of every regular file below `dir`.
std::map<std::string, std::string> tree(const std::string& dir);

/// Content, permissions and time of a file.
using File = std::tuple<std::string, unsigned, std::time_t>;
using Files = std::map<std::string, File>;

/// Relative path -> every regular file below `dir`, which ends in "/".
Files files_below(const std::string& dir);

/// The names in `dir`, sorted.
Texts names_in(const std::string& dir);

/// Path -> descriptor of every file below `dir` that this process has open.
std::multimap<std::string, int> open_below(const std::string& dir);

/// The members of a gzip tar archive, in its order, as `tar tzf` lists them.
Texts members(const Bytes& archive);

/// A gzip tar archive of `names` in `dir`, made by the real tar.
Bytes make_archive(const std::string& dir, const std::string& names);

/// The bytes as a blob literal of SQL.
std::string hex(const Bytes& bytes);

}  // namespace test
