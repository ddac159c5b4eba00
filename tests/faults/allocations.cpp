#include "allocations.h"

#include <sqlite3.h>

#include <cstdlib>
#include <new>

Countdown cpp;
Countdown sql;
long alive = 0;

bool Countdown::strikes() {
  if (left < 0 || left-- != 0) return false;
  struck = true;
  return true;
}

namespace {

sqlite3_mem_methods sqlite_memory;

void* sqlite_malloc(int size) { return sql.strikes() ? nullptr : sqlite_memory.xMalloc(size); }
void* sqlite_realloc(void* old, int size) {
  return sql.strikes() ? nullptr : sqlite_memory.xRealloc(old, size);
}

}  // namespace

void take_over_sqlite() {
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &sqlite_memory);
  sqlite3_mem_methods methods = sqlite_memory;
  methods.xMalloc = sqlite_malloc;
  methods.xRealloc = sqlite_realloc;
  sqlite3_config(SQLITE_CONFIG_MALLOC, &methods);
}

void* operator new(std::size_t size) {
  if (cpp.strikes()) throw std::bad_alloc();
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  ++alive;
  return memory;
}

void operator delete(void* memory) noexcept {
  if (memory != nullptr) --alive;
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }
