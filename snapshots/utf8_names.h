#pragma once

#include <clocale>

namespace ConfSave::snapshots {

/// While it lives, names of this thread are UTF-8: under other locales libarchive refuses names. The other
/// categories stay the host's, whose functions run meanwhile.
class Utf8Names {
 public:
  Utf8Names() : utf8_(with_utf8(duplocale(uselocale(nullptr)))), before_(uselocale(utf8_)) {}
  Utf8Names(const Utf8Names&) = delete;
  Utf8Names& operator=(const Utf8Names&) = delete;
  ~Utf8Names() {
    uselocale(before_);
    if (utf8_ != nullptr) freelocale(utf8_);
  }

 private:
  static locale_t with_utf8(locale_t host) {
    const locale_t result = newlocale(LC_CTYPE_MASK, "C.UTF-8", host);
    if (result == nullptr && host != nullptr) freelocale(host);
    return result;
  }

  locale_t utf8_;
  locale_t before_;
};

}  // namespace ConfSave::snapshots
