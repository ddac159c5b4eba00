#pragma once

// The allocations that the campaign `memory` lets fail: each `operator new`, and each one of SQLite. The
// operators are defined in a file of their own, where the compiler cannot inline the one without the other.

/// Counts allocations down to the one that fails.
struct Countdown {
  long left = -1;
  bool struck = false;

  bool strikes();
};

/// Of `operator new`.
extern Countdown cpp;
/// Of SQLite.
extern Countdown sql;

/// Blocks of `operator new` that are not deleted yet.
extern long alive;

/// Before SQLite is used.
void take_over_sqlite();

/// The host's own allocations do not count.
class Disarmed {
 public:
  Disarmed() : cpp_(cpp.left), sql_(sql.left) { cpp.left = sql.left = -1; }
  Disarmed(const Disarmed&) = delete;
  Disarmed& operator=(const Disarmed&) = delete;
  ~Disarmed() {
    cpp.left = cpp_;
    sql.left = sql_;
  }

 private:
  long cpp_;
  long sql_;
};
