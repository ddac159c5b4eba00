#pragma once

// Archives and rows of the fuzz targets, whole before they are damaged.

#include <archive.h>
#include <archive_entry.h>

#include <cstdlib>
#include <string>

#include "host.h"

namespace fuzz {

inline void demand(bool condition) {
  if (!condition) std::abort();
}

/// Writes one archive into memory.
class ArchiveWriter {
 public:
  ArchiveWriter(int (*format)(struct archive*), bool packed) {
    demand(format(archive_) == ARCHIVE_OK);
    if (packed) demand(archive_write_add_filter_gzip(archive_) == ARCHIVE_OK);
    archive_write_set_bytes_in_last_block(archive_, 1);
    demand(archive_write_open(archive_, this, nullptr, append, nullptr) == ARCHIVE_OK);
  }
  ArchiveWriter(const ArchiveWriter&) = delete;
  ArchiveWriter& operator=(const ArchiveWriter&) = delete;
  ~ArchiveWriter() {
    archive_write_free(archive_);
    archive_entry_free(entry_);
  }

  void add(unsigned kind, const std::string& path, const std::string& content, bool is_link = false) {
    archive_entry_clear(entry_);
    archive_entry_set_pathname(entry_, path.c_str());
    archive_entry_set_filetype(entry_, kind);
    archive_entry_set_perm(entry_, 0640);
    archive_entry_set_mtime(entry_, 1488377100, 5000);
    if (kind == AE_IFLNK) archive_entry_set_symlink(entry_, content.c_str());
    if (is_link) archive_entry_set_hardlink(entry_, content.c_str());
    const bool has_content = kind == AE_IFREG && !is_link;
    archive_entry_set_size(entry_, has_content ? static_cast<la_int64_t>(content.size()) : 0);
    if (content.size() > 9000) {
      archive_entry_sparse_add_entry(entry_, 0, 512);
      archive_entry_sparse_add_entry(entry_, 8192, 512);
    }
    // A name that is not UTF-8 is a warning.
    demand(archive_write_header(archive_, entry_) >= ARCHIVE_WARN);
    if (has_content) demand(archive_write_data(archive_, content.data(), content.size()) >= 0);
  }

  std::string finish() {
    demand(archive_write_close(archive_) == ARCHIVE_OK);
    return bytes_;
  }

 private:
  static la_ssize_t append(struct archive*, void* self, const void* bytes, std::size_t size) {
    static_cast<ArchiveWriter*>(self)->bytes_.append(static_cast<const char*>(bytes), size);
    return static_cast<la_ssize_t>(size);
  }

  struct archive* archive_ = archive_write_new();
  struct archive_entry* entry_ = archive_entry_new();
  std::string bytes_;
};

inline std::string gzip(const std::string& bytes) {
  ArchiveWriter writer(archive_write_set_format_raw, true);
  writer.add(AE_IFREG, "x", bytes);
  return writer.finish();
}

/// A member of every kind.
inline std::string tar(int (*format)(struct archive*)) {
  ArchiveWriter writer(format, false);
  writer.add(AE_IFREG, "user/gateway.conf", "one\n");
  writer.add(AE_IFDIR, "station", "");
  writer.add(AE_IFREG, "station/" + std::string(120, 'n') + "\xff", std::string(600, 'c'));
  writer.add(AE_IFLNK, "station/symlink", "../user/gateway.conf");
  writer.add(AE_IFREG, "station/hardlink", "user/gateway.conf", true);
  writer.add(AE_IFREG, "station/sparse", std::string(9100, 's'));
  return writer.finish();
}

inline std::string etc_tar() {
  ArchiveWriter writer(archive_write_set_format_ustar, false);
  writer.add(AE_IFREG, "failover.ini", "f\n");
  return writer.finish();
}

inline void make_live_configuration() {
  write(root() + "/config/user/gateway.conf", "one\n");
  write("/mnt/main/etc/failover.ini", "f\n");
}

/// Closes what it opens, and ends the process if a statement fails.
class Writer {
 public:
  explicit Writer(const std::string& file) { demand(sqlite3_open(file.c_str(), &db_) == SQLITE_OK); }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  ~Writer() { sqlite3_close(db_); }

  void run(const char* sql, const std::string& first = "", const std::string& second = "") {
    sqlite3_stmt* statement = nullptr;
    demand(sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) == SQLITE_OK);
    sqlite3_bind_blob(statement, 1, first.data(), static_cast<int>(first.size()), SQLITE_STATIC);
    sqlite3_bind_blob(statement, 2, second.data(), static_cast<int>(second.size()), SQLITE_STATIC);
    while (sqlite3_step(statement) == SQLITE_ROW) {
    }
    demand(sqlite3_finalize(statement) == SQLITE_OK);
  }

 private:
  sqlite3* db_ = nullptr;
};

/// A storage with two whole rows, "weekly" and "other". Pages are small, so that most bytes matter.
inline void make_storage() {
  std::filesystem::remove(database());
  std::filesystem::remove(database() + "-journal");
  Writer writer(database());
  writer.run("pragma synchronous=off");
  writer.run("pragma page_size=512");
  writer.run("pragma auto_vacuum=incremental");
  writer.run(
      "create table Config (id integer primary key autoincrement, name varchar(80) not null, "
      "version integer not null, keybase blob, etc blob, type integer, save_time timestamp, "
      "load_time timestamp, unique (name, version))");
  const std::string pax = gzip(tar(archive_write_set_format_pax_restricted));
  const std::string gnu = gzip(tar(archive_write_set_format_gnutar));
  const std::string etc = gzip(etc_tar());
  writer.run("insert into Config values (1, 'weekly', 17264017408, ?, ?, 1, 1000, null)", pax, etc);
  writer.run("insert into Config values (2, 'other', 17264017408, ?, ?, 2, 2000, 3000)", gnu, etc);
}

}  // namespace fuzz
