#include "confsave.h"

#include <algorithm>
#include <iterator>

// Boost's newer separator splits differently.
#define BOOST_ALLOW_DEPRECATED_HEADERS
#include <boost/lexical_cast.hpp>
#include <boost/token_functions.hpp>
#include <boost/token_iterator.hpp>

namespace ConfSave {
namespace {

// Over unsigned bytes: the C library's character classes are undefined for a negative char.
using Byte = unsigned char;
using Separator = boost::char_delimiters_separator<Byte>;
using TokenIterator = boost::token_iterator<Separator, const Byte*, std::string>;

constexpr std::size_t kComponents = 3;

/// The runs of characters that are neither white space nor punctuation. Stops at the first one too many.
/// A sign is a separator. // Quirk Q5
std::vector<std::string> tokens(const std::string& text) {
  const auto* begin = reinterpret_cast<const Byte*>(text.data());
  const auto* end = begin + text.size();
  std::vector<std::string> result;
  for (TokenIterator token(Separator(), begin, end); !token.at_end(); ++token) {
    result.push_back(*token);
    if (result.size() > kComponents) break;
  }
  return result;
}

/// Accepts digits only. Under some locales lexical_cast would accept grouped digits.
std::uint32_t component(const std::string& token) {
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  if (!std::all_of(token.begin(), token.end(), is_digit)) throw boost::bad_lexical_cast();
  return boost::lexical_cast<std::uint32_t>(token);
}

/// A component of 2^31 or more counts as negative, then carries into the next like any other. Unsigned
/// arithmetic: a partial sum may leave the range of the result.
std::uint64_t signed_shift(std::uint32_t component, unsigned bits) {
  const std::uint64_t sign = component >= 0x80000000U ? 0xffffffff00000000U : 0;
  return (sign | component) << bits;
}

int64 as_signed(std::uint64_t bits) {
  constexpr std::uint64_t kSign = 0x8000000000000000U;
  return bits < kSign ? static_cast<int64>(bits) : -static_cast<int64>(~bits) - 1;
}

}  // namespace

// Components are not limited to their 8 bits: 4.256.0 is 5.0.0. And 0.0.0 means no version.
// Quirk Q3, Q59
// Hosts pass the text by value. NOLINTNEXTLINE(performance-unnecessary-value-param)
bool Config::vers_convert(std::string text) {
  vers = 0;  // Quirk Q4
  const std::vector<std::string> parts = tokens(text);
  if (parts.size() != kComponents) return false;
  try {
    const std::uint32_t major = component(parts[0]);
    const std::uint32_t minor = component(parts[1]);
    const std::uint32_t build = component(parts[2]);
    vers = as_signed((std::uint64_t{major} << 32U) + signed_shift(minor, 24) + signed_shift(build, 16));
    return true;
  } catch (const boost::bad_lexical_cast&) {
    return false;
  }
}

}  // namespace ConfSave
