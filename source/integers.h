#pragma once

#include <cstdint>

namespace ConfSave {

/// The low 32 bits of `value` as a signed number, for any value.
constexpr std::int32_t low32(std::int64_t value) {
  const auto bits = static_cast<std::uint64_t>(value) & 0xffffffffU;
  const auto number = static_cast<std::int64_t>(bits);
  return static_cast<std::int32_t>(bits < 0x80000000U ? number : number - 0x100000000);
}

/// The high 32 bits of `value` as a signed number, for any value.
constexpr std::int32_t high32(std::int64_t value) {
  return low32(static_cast<std::int64_t>(static_cast<std::uint64_t>(value) >> 32U));
}

}  // namespace ConfSave
