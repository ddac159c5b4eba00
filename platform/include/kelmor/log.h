#pragma once

#include "kelmor/status.h"

/// Names the function that writes a log record.
class KELMOR_API ClUnilogFname {
 public:
  /// Keeps the pointers: pass literals.
  ClUnilogFname(const char* signature, const char* name) : signature_(signature), name_(name) {}

  /// The full signature, for example "void ConfSave::Storage::Begin()".
  const char* Signature() const { return signature_; }

  /// The short name, for example "Begin".
  const char* Name() const { return name_; }

 private:
  const char* signature_;
  const char* name_;
};

/// The log of one module. A record consists of begin, any number of texts and integers, and end. Any entry
/// point may be null, and is then skipped.
struct KorvLogProps {
  /// Records up to this level are logged: 0 none; 1 failures; 2 also progress, and statements that SQLite
  /// refuses; 4 details.
  int level;
  /// Begins a record that `function` writes in line `line` of `source`.
  void (*begin)(int level, const ClUnilogFname& function, const char* source, int line);
  /// The first text of the record.
  void (*text)(const char*);
  /// A text that is appended.
  void (*builder_text)(const char*);
  /// A signed or unsigned integer of `width` bytes at `value`.
  void (*integer)(const void* value, unsigned width);
  /// Ends the record. Must not throw, because it also runs while an exception propagates.
  void (*end)();
};

extern "C" {

/// The log of this module, or null for no log. The argument is reserved and is 0. The result is valid until
/// the next call of the same thread. A host may define this function itself.
KELMOR_API const KorvLogProps* KorvLog_GetProps_cl_module(int);

/// Writes one line, formatted as by printf(), to the system log. A host may define this function itself.
KELMOR_API void slput(int priority, const char* format, ...);
}
