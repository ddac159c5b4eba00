#pragma once

// How the library throws. The platform's status class takes a flag besides: true without a text, false
// with one.

#include "confsave.h"

namespace ConfSave {

template <class Exception>
[[noreturn]] void throw_status(status_code number = status_none) {
  throw Exception(number, true);
}

template <class Exception>
[[noreturn]] void throw_text(status_code number, const char* text) {
  throw Exception(number, text, false);
}

}  // namespace ConfSave
