#pragma once

#include <string>
#include <type_traits>

#include "kelmor/log.h"

namespace ConfSave {

/// Builds one log record, from construction to destruction:
///
///   if (KovrLogHelper record{2, kBegin, kSource, "SQL error: "}) record << text << code;
///
/// Below its level a record is false, and nothing is computed or written.
class KovrLogHelper {
 public:
  KovrLogHelper(int level, const ClUnilogFname& function, const char* source, const char* opening,
                int line = __builtin_LINE())
      : props_(KorvLog_GetProps_cl_module(0)) {
    if (props_ != nullptr && props_->level < level) props_ = nullptr;
    if (props_ == nullptr) return;
    if (props_->begin != nullptr) props_->begin(level, function, source, line);
    if (props_->text != nullptr) props_->text(opening);
  }

  KovrLogHelper(const KovrLogHelper&) = delete;
  KovrLogHelper& operator=(const KovrLogHelper&) = delete;

  ~KovrLogHelper() {
    if (props_ != nullptr && props_->end != nullptr) props_->end();
  }

  explicit operator bool() const { return props_ != nullptr; }

  KovrLogHelper& operator<<(const char* text) {
    if (props_->builder_text != nullptr && text != nullptr) props_->builder_text(text);
    return *this;
  }

  KovrLogHelper& operator<<(const std::string& text) { return *this << text.c_str(); }

  /// Passes the number by address and width; the host's log formats it.
  template <class Integer, class = std::enable_if_t<std::is_integral_v<Integer>>>
  KovrLogHelper& operator<<(Integer number) {
    if (props_->integer != nullptr) props_->integer(&number, sizeof number);
    return *this;
  }

 private:
  const KorvLogProps* props_;
};

/// Logs a record that is one text.
inline void log_text(int level, const ClUnilogFname& function, const char* source, const char* text,
                     int line = __builtin_LINE()) {
  const KovrLogHelper record{level, function, source, text, line};
}

}  // namespace ConfSave
