#pragma once

#include "kelmor/status.h"

/// Names the function that a log record speaks of.
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

/// The log of one module. A record is begin, any number of pieces, end. Any entry point may be null;
/// what it would have done is then left out.
struct KorvLogProps {
  /// Records of this level and below are wanted: 1 failures, 2 progress, 4 detail; 0 is silence.
  int level;
  /// A record begins. It is made in `line` of `source`, by `function`.
  void (*begin)(int level, const ClUnilogFname& function, const char* source, int line);
  /// The record's opening text.
  void (*text)(const char*);
  /// A text that the record builder appends.
  void (*builder_text)(const char*);
  /// A signed or unsigned integer of `width` bytes at `value`.
  void (*integer)(const void* value, unsigned width);
  /// Must not throw: a record ends on every way out.
  void (*end)();
};

extern "C" {

/// The log properties of this module; the number is reserved and 0. Null means no log at all.
/// The result is valid until the next call. A host may define its own.
KELMOR_API const KorvLogProps* KorvLog_GetProps_cl_module(int);

/// Writes one line, formed as printf forms it, to the system log. A host may define its own.
KELMOR_API void slput(int priority, const char* format, ...);
}
