// Any text as a version, and any number as a version and a time.

#include <cstdint>
#include <cstring>
#include <sstream>

#include "host.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ConfSave::Config config(1);
  const bool converted = config.vers_convert(text);
  if (!converted && config.vers != 0) std::abort();

  // A version in range is printed as it was read.
  ConfSave::Config again(0);
  const auto in_range = [](ConfSave::int64 v) { return v > 0 && v < (ConfSave::int64{1} << 62U); };
  if (converted && in_range(config.vers) &&
      (!again.vers_convert(config.version()) || again.vers != config.vers)) {
    std::abort();
  }

  if (size >= sizeof(ConfSave::int64)) {
    std::memcpy(&config.vers, data, sizeof config.vers);
    config.save_time = config.load_time = config.vers;
    std::ostringstream line;
    line << config;
  }
  return 0;
}
