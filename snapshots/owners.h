#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "confsave/snapshots.h"

namespace ConfSave::snapshots {

/// The owners that root's tar gives files: a name counts more than the number beside it, which may be
/// another user's here.
class Owners {
 public:
  /// The number of the user `name` on this machine, or `number` if there is no such user.
  Result<std::uint32_t> user(const std::string& name, std::uint32_t number);
  Result<std::uint32_t> group(const std::string& name, std::uint32_t number);

 private:
  using Numbers = std::map<std::string, std::optional<std::uint32_t>>;

  Numbers users_;  ///< of those names that were looked up
  Numbers groups_;
};

}  // namespace ConfSave::snapshots
