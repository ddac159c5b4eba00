// Takes the exclusive lock of a database at once or fails. Prints a letter when it holds the lock:
//
//   locker FILE MILLISECONDS
//
// A separate program, because a forked child shares the locks of its parent.

#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(argv[1], &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return 1;
  if (sqlite3_exec(db, "begin exclusive", nullptr, nullptr, nullptr) != SQLITE_OK) return 1;
  const long milliseconds = std::strtol(argv[2], nullptr, 10);
  if (milliseconds > 0) {
    if (write(STDOUT_FILENO, "x", 1) != 1) return 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  }
  sqlite3_exec(db, "commit", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  return 0;
}
