#include "storage_wait.h"

#include <places.h>
#include <sqlite3.h>

#include <iostream>

#include "interrupt.h"
#include "text.h"

namespace console {
namespace {

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds allowed{0};
Clock::duration waited{0};
bool expired = false;
bool printed = false;
bool damaged = false;

/// SQLite reports every damaged page here. The library's listings end there without an error. // Quirk Q20
void note_error(void*, int code, const char*) {
  if ((code & 0xff) == SQLITE_CORRUPT || code == SQLITE_IOERR_READ) damaged = true;
}

// A file system for SQLite that is the default one except for the waiting.

sqlite3_vfs* original = nullptr;
const sqlite3_io_methods* original_methods = nullptr;

int limited(int code) {
  if (code != SQLITE_BUSY || (waited < allowed && !interrupted())) return code;
  expired = !interrupted();
  return SQLITE_IOERR_LOCK;
}

int lock(sqlite3_file* file, int level) { return limited(original_methods->xLock(file, level)); }

/// The locks of a foreign storage with a write-ahead log.
int lock_shared_memory(sqlite3_file* file, int offset, int count, int flags) {
  return limited(original_methods->xShmLock(file, offset, count, flags));
}

int open_file(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* opened_flags) {
  static sqlite3_io_methods methods;
  const int code = original->xOpen(original, name, file, flags, opened_flags);
  if (code != SQLITE_OK || (flags & SQLITE_OPEN_MAIN_DB) == 0) return code;
  original_methods = file->pMethods;
  methods = *original_methods;
  methods.xLock = lock;
  methods.xShmLock = lock_shared_memory;
  file->pMethods = &methods;
  return code;
}

/// SQLite sleeps only between two attempts to lock.
int sleep(sqlite3_vfs*, int microseconds) {
  const auto start = Clock::now();
  const int slept = original->xSleep(original, microseconds);
  waited += Clock::now() - start;
  return slept;
}

}  // namespace

void limit_storage_wait(std::chrono::milliseconds limit) {
  static sqlite3_vfs file_system;
  allowed = limit;
  waited = Clock::duration(0);
  expired = printed = damaged = false;
  if (original != nullptr) return;
  sqlite3_config(SQLITE_CONFIG_LOG, note_error, nullptr);
  original = sqlite3_vfs_find(nullptr);
  file_system = *original;
  file_system.zName = "confsave";
  file_system.xOpen = open_file;
  file_system.xSleep = sleep;
  sqlite3_vfs_register(&file_system, 1);
}

bool storage_wait_expired() { return expired; }

void print_storage_wait_expired() {
  if (printed) return;
  printed = true;
  std::cerr << "confsave: '" << printable(ConfSave::storage_file())
            << "' is locked by another program, or cannot be locked. Try again later, or wait longer with "
            << "--wait.\n";
}

bool storage_is_damaged() { return damaged; }

void print_storage_damaged() {
  if (printed) return;
  printed = true;
  std::cout.flush();
  std::cerr << "confsave: '" << printable(ConfSave::storage_file())
            << "' is damaged: not every snapshot can be read. Copy the file, and recover the copy with "
            << "sqlite3: .recover\n";
}

}  // namespace console
