#pragma once

#include <archive.h>
#include <archive_entry.h>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// The functions of libarchive that reading an archive takes.
struct Libarchive {
  decltype(&::archive_read_new) archive_read_new;
  decltype(&::archive_read_free) archive_read_free;
  decltype(&::archive_read_support_format_tar) archive_read_support_format_tar;
  decltype(&::archive_read_support_format_empty) archive_read_support_format_empty;
  decltype(&::archive_read_set_format_option) archive_read_set_format_option;
  decltype(&::archive_read_open) archive_read_open;
  decltype(&::archive_read_next_header) archive_read_next_header;
  decltype(&::archive_read_data_block) archive_read_data_block;
  decltype(&::archive_errno) archive_errno;
  decltype(&::archive_error_string) archive_error_string;
  decltype(&::archive_format) archive_format;
  decltype(&::archive_entry_acl_next) archive_entry_acl_next;
  decltype(&::archive_entry_acl_reset) archive_entry_acl_reset;
  decltype(&::archive_entry_filetype) archive_entry_filetype;
  decltype(&::archive_entry_gid) archive_entry_gid;
  decltype(&::archive_entry_gname) archive_entry_gname;
  decltype(&::archive_entry_hardlink) archive_entry_hardlink;
  decltype(&::archive_entry_mtime) archive_entry_mtime;
  decltype(&::archive_entry_pathname) archive_entry_pathname;
  decltype(&::archive_entry_perm) archive_entry_perm;
  decltype(&::archive_entry_size) archive_entry_size;
  decltype(&::archive_entry_sparse_count) archive_entry_sparse_count;
  decltype(&::archive_entry_symlink) archive_entry_symlink;
  decltype(&::archive_entry_uid) archive_entry_uid;
  decltype(&::archive_entry_uname) archive_entry_uname;
};

/// Loads libarchive with the first archive that a process reads, and keeps it. It brings ten libraries
/// along: a command that reads no archive starts faster without them, and a recovery works where one is
/// missing. Code::failed: it cannot be loaded; the next call tries again. From any thread.
Result<const Libarchive*> libarchive();

}  // namespace ConfSave::snapshots
