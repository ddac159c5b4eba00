#pragma once

// How the library throws. The platform's status class takes a flag besides: true without a text, false
// with one.

namespace ConfSave {

template <class Exception>
[[noreturn]] void throw_status(int status = 0) {
  throw Exception(status, true);
}

template <class Exception>
[[noreturn]] void throw_text(int status, const char* text) {
  throw Exception(status, text, false);
}

}  // namespace ConfSave
