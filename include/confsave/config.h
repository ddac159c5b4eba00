#pragma once

// The record of a snapshot, and the types of its values.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#define CONFSAVE_API __attribute__((visibility("default")))

namespace ConfSave {

/// The integer type of versions and times. Log records spell it this way.
using int64 = std::int64_t;

/// The version of the running software, 4.5.4.
constexpr int64 CURRENT_VERSION = 0x405040000;

/// The type of a configuration: what it contains. Other values are legal; they print as nothing and pack
/// like conf_part.
enum conftype : std::int32_t {
  conf_none = 0,   ///< not set
  conf_full = 1,   ///< everything, the network description included
  conf_part = 2,   ///< everything but the network description
  conf_corlu = 3,  ///< the packet filter only; no failover archive
};

/// One snapshot without its archives. A plain value.
class CONFSAVE_API Config {
 public:
  std::string name;  ///< as stored
  conftype type;     ///< what was packed
  int64 vers;        ///< packed version
  int64 save_time;   ///< seconds since the epoch
  int64 load_time;   ///< seconds since the epoch; 0 if never loaded

  /// An unnamed record of type conf_none with the given version, saved now, never loaded.
  explicit Config(int64 version);

  /// Sets save_time to now.
  void update_save_time();

  /// Sets load_time to now.
  void update_load_time();

  /// The text of a packed version, for example "4.5.4"; empty for 0. Omits the low 16 bits.
  static std::string version(int64 v);

  /// The text of this record's version.
  std::string version() const;

  /// Sets `vers` from a text such as "4.5.4": three decimal numbers below 2^32, separated and surrounded by
  /// any white space and punctuation of the process's C locale. A minor or build above 255 carries over;
  /// a minor or build of 2^31 or more counts as negative. Sets `vers` to 0 and returns false for any
  /// other text.
  bool vers_convert(std::string text);
};

/// Records in the order in which SQLite returned them.
using Configs = std::vector<Config>;

/// The local time of `t`, seconds since the epoch, as "01.03.2017 at 14:05"; empty for a time that
/// localtime(3) cannot convert. Not thread-safe.
CONFSAVE_API std::string time_format(int64 t);

/// Writes "full", "part" or "corlu"; nothing for any other value, or if `out` is not good.
CONFSAVE_API std::ostream& operator<<(std::ostream& out, conftype type);

/// Writes the record as one line without a line end; nothing if `out` is not good:
/// "weekly",<TAB>version 4.5.4,<TAB>full, saved on 01.03.2017 at 14:05, never loaded
CONFSAVE_API std::ostream& operator<<(std::ostream& out, const Config& config);

}  // namespace ConfSave
