#pragma once

// The commands that pack and unpack, and what happens when one fails.

#include <string>
#include <vector>

#include "confsave.h"
#include "kelmor/log.h"

namespace ConfSave {

/// The source that every log record of the archive names.
constexpr const char* kArchiveSource = "source/archive";

/// The function that log records about unpacking name.
extern const ClUnilogFname kUnpackTag;

// Command lines. Paths are pasted into them unchanged.

/// `files` is a list in which every entry is preceded by a blank.
std::string pack_command(const std::string& archive, const std::string& dir, const std::string& files);
std::string unpack_command(const std::string& archive, const std::string& scratch);
std::string move_command(const std::string& scratch, const std::string& dir);
std::string remove_command(const std::string& scratch);

/// Packs `files`, relative to `dir`, into the file `archive`, an absolute path.
/// Throws XExternalFailure with status_command.
void pack(const std::string& archive, const std::string& dir, const std::string& files);

/// Unpacks into a scratch directory inside `dir`, then links everything into `dir`.
/// Throws XTOOStatus with status_mkdtemp when it cannot make the scratch directory, XExternalFailure with
/// status_command when a command fails.
void unpack(const std::string& archive, const std::string& dir);

/// Reads a whole file into `out`, which becomes empty when there is no file.
/// Throws XTOOStatus with status_read; exceptions of TempFile propagate.
void TempFile_to_BinObj(const TempFile& file, std::vector<char>& out);

}  // namespace ConfSave
