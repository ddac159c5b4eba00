#include "snapshots/summary.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <optional>
#include <type_traits>

#include "places.h"
#include "snapshots/access.h"
#include "snapshots/descriptor.h"
#include "snapshots/digest.h"
#include "snapshots/own_file.h"
#include "snapshots/stamp.h"
#include "snapshots/storage_reader.h"

namespace ConfSave::snapshots {
namespace {

/// Fewer rows are read in a few milliseconds.
constexpr int64 kManyRows = 1000;

/// Differs after each change of the storage. SQLite counts its commits in the header of the file, so that
/// two within one tick of the file system's clock differ, too; the file's times show what others write.
struct Fingerprint {
  Stamp file;
  std::array<char, 100> header = {};
  std::uint32_t layout = 1;  ///< of Record; another one too when other names become those of autosaves
};

/// The content of the file.
struct Record {
  Fingerprint fingerprint;
  Summary summary;
  Digest digest = {};  ///< of what stands before; nothing syncs the file, so that a power cut may damage it
};
static_assert(std::has_unique_object_representations_v<Record>, "compared and stored as bytes");

std::string summary_file() { return storage_file() + "-summary"; }

Digest digest_of(const Record& record) {
  Sha256 digest;
  digest.add(&record, offsetof(Record, digest));
  return digest.finish();
}

/// The fingerprint of what a read transaction sees, which this begins: SQLite has rolled back what a killed
/// process left, and nobody commits before the transaction ends. No value if SQLite reads pages from a
/// write-ahead log, which the fingerprint does not show.
std::optional<Fingerprint> begin(Database& storage) {
  if (storage.run("begin; select 1 from sqlite_schema").code != Code::ok) return {};
  const char* path = sqlite3_db_filename(storage.get(), "main");
  struct stat status = {};
  if (stat(path, &status) != 0 || may_access(sqlite3_filename_wal(path), F_OK)) return {};
  Fingerprint found;
  found.file = stamp_of(status);
  // Closing a file that was opened here would release the locks that SQLite has on it in this process.
  sqlite3_file* file = nullptr;
  sqlite3_file_control(storage.get(), "main", SQLITE_FCNTL_FILE_POINTER, &file);
  const int code = file->pMethods->xRead(file, found.header.data(), sizeof found.header, 0);
  return code == SQLITE_OK ? std::optional(found) : std::nullopt;
}

std::optional<Summary> find_kept(const Fingerprint& fingerprint) {
  const Descriptor file(open(summary_file().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  Record record;
  if (!file || read(file.get(), &record, sizeof record) != sizeof record) return {};
  const bool is_current = std::memcmp(&record.fingerprint, &fingerprint, sizeof fingerprint) == 0;
  return is_current && record.digest == digest_of(record) ? std::optional(record.summary) : std::nullopt;
}

Result<Summary> count(StorageReader& reader) {
  Summary summary;
  Error error = reader.count([&summary](const StorageReader::Counted& row) {
    ++summary.snapshots;
    summary.largest = std::max(summary.largest, row.size);
    summary.newest = std::max(summary.newest, row.saved);
    if (is_autosave(row.name)) summary.newest_autosave = std::max(summary.newest_autosave, row.saved);
  });
  if (error.code != Code::ok) return error;
  return summary;
}

/// Reads the index of the names, and not all of it.
bool has_many_rows(Database& storage) {
  Result<Statement> statement =
      storage.prepare("select 1 from Config limit 1 offset " + std::to_string(kManyRows - 1));
  return statement && statement->step() == SQLITE_ROW;
}

void keep() {
  Result<std::optional<StorageReader>> reader = StorageReader::open(std::chrono::milliseconds(0));
  if (!reader || !*reader || !has_many_rows((*reader)->database())) return;
  const std::optional<Fingerprint> fingerprint = begin((*reader)->database());
  if (!fingerprint || find_kept(*fingerprint)) return;
  const Result<Summary> summary = count(**reader);
  if (!summary) return;
  Record record{*fingerprint, *summary};
  record.digest = digest_of(record);
  constexpr int kFlags = O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const Descriptor file = beside_streams(Descriptor(open_or_make(summary_file(), kFlags)));
  // In place, so that a kill leaves no temporary file.
  if (file) static_cast<void>(pwrite(file.get(), &record, sizeof record, 0));
}

}  // namespace

Result<Summary> summarize(const Deadline& deadline) {
  Result<std::optional<StorageReader>> reader = StorageReader::open(deadline.left());
  if (!reader) return reader.error();
  if (!*reader) return Summary();
  const std::optional<Fingerprint> fingerprint = begin((*reader)->database());
  if (fingerprint) {
    if (const std::optional<Summary> kept = find_kept(*fingerprint)) return *kept;
  }
  return count(**reader);
}

void keep_summary() noexcept {
  try {
    keep();
  } catch (...) {
    // What was changed is stored all the same.
    return;
  }
}

}  // namespace ConfSave::snapshots
