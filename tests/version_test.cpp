#include <algorithm>
#include <cstdint>
#include <iterator>
#include <random>

#include "support/gateway.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;

/// The number that a text converts to; nothing if it is refused, which must set the version to 0.
std::optional<int64> convert(const std::string& text) {
  Config config(17264017408);
  if (config.vers_convert(text)) return config.vers;
  EXPECT_EQ(config.vers, 0) << text;
  return std::nullopt;
}

struct Conversion {
  std::string text;
  int64 number;
  std::string printed;
};

void expect_conversions(const std::vector<Conversion>& conversions) {
  for (const auto& [text, number, printed] : conversions) {
    EXPECT_EQ(convert(text), std::optional<int64>(number)) << text;
    EXPECT_EQ(Config::version(number), printed) << text;
  }
}

TEST(VersionConversion, PacksThreeNumbers) {
  expect_conversions({{"4.5.4", 17264017408, "4.5.4"},
                      {"1.0.0", 4294967296, "1.0.0"},
                      {"0.0.1", 65536, "0.0.1"},
                      {"10.11.12", 43135008768, "10.11.12"},
                      {"4.5.4.", 17264017408, "4.5.4"},
                      {"04.005.4", 17264017408, "4.5.4"},
                      {"4.5.00000000000000000004", 17264017408, "4.5.4"},
                      {"4.5.4294967295", 17263689728, "4.4.255"},
                      {"2147483648.0.0", INT64_MIN, "-2147483648.0.0"},
                      {"4294967295.0.0", -4294967296, "-1.0.0"},
                      {"2147483647.255.255", 9223372036854710272, "2147483647.255.255"},
                      // 2^31 - 1 majors and a carry out of the minor.
                      {"2147483647.256.0", INT64_MIN, "-2147483648.0.0"},
                      {"2147483648.4294967295.0", 9223372036837998592, "2147483647.255.0"}});
}

TEST(VersionConversion, SeparatorsMayBeMixedAndRepeated) {
  expect_conversions({{" 4 . 5 . 4 ", 17264017408, "4.5.4"},
                      {"4,5,4", 17264017408, "4.5.4"},
                      {"4-5-4", 17264017408, "4.5.4"},
                      {"4..5.4", 17264017408, "4.5.4"},
                      {"4_5/4:", 17264017408, "4.5.4"},
                      {"\t4\n5\v4\f\r", 17264017408, "4.5.4"}});
}

TEST(VersionConversion, SignIsASeparator) {
  expect_conversions({{"-4.5.4", 17264017408, "4.5.4"}, {"+4.-5.+4", 17264017408, "4.5.4"}});
}

TEST(VersionConversion, MinorAbove255CarriesIntoTheMajor) {
  expect_conversions({{"4.256.0", 21474836480, "5.0.0"}});
}

TEST(VersionConversion, BuildAbove255CarriesIntoTheMinor) {
  expect_conversions({{"4.5.300", 17283416064, "4.6.44"}});
}

TEST(VersionConversion, MinorAndBuildFrom2To31AreNegative) {
  expect_conversions({{"0.4294967295.0", -16777216, "-1.255.0"},
                      {"0.0.4294967295", -65536, "-1.255.255"},
                      {"1.0.4294967295", 4294901760, "0.255.255"},
                      {"0.2147483648.0", -36028797018963968, "-8388608.0.0"}});
}

TEST(VersionConversion, ThreeZerosAreNoVersion) { expect_conversions({{"0.0.0", 0, ""}}); }

TEST(VersionConversion, RefusesAnyOtherText) {
  const test::Texts few{"", " ", "...", "4", "4.5", "4.x.4", "0x4.5.4", "4.5.1e3", "4.5.4b", "v4.5.4"};
  const test::Texts many{"4.5.4.1", "4.5.4-rc1", "1.2.3.4.5"};
  const test::Texts large{"4.5.4294967296", "4294967296.5.4", "4.4294967296.4",
                          "4.5.99999999999999999999999"};
  const test::Texts bytes{"4.5.4\xff",        "4\x80.5.4",    "\xa0.5.4",
                          "4.\xe2\x80\xa2.4", {"4\0.5.4", 6}, {"4.5.4.\0", 7}};
  for (const test::Texts& texts : {few, many, large, bytes}) {
    for (const std::string& text : texts) EXPECT_EQ(convert(text), std::nullopt) << text;
  }
}

TEST(VersionConversion, FailureSetsOnlyTheVersionToZero) {
  Config config(17264017408);
  config.name = "weekly";
  config.type = ConfSave::conf_part;
  config.save_time = 11;
  config.load_time = 12;
  EXPECT_FALSE(config.vers_convert("4.5"));
  EXPECT_EQ(config.vers, 0);
  EXPECT_EQ(config.name, "weekly");
  EXPECT_EQ(config.type, ConfSave::conf_part);
  EXPECT_EQ(config.save_time, 11);
  EXPECT_EQ(config.load_time, 12);
}

TEST(VersionConversion, GroupingLocaleHasNoEffect) {
  const test::GroupedDigits grouped('x');
  EXPECT_EQ(convert("1000.5.4"), std::optional<int64>(4295051444224));
  EXPECT_EQ(convert("1x000.5.4"), std::nullopt);
}

// An independent oracle: characters by table, numbers digit by digit, the sum in 128 bits.

const std::string kSeparators = " \t\n\v\f\r!\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~";

test::Texts split(const std::string& text) {
  test::Texts tokens;
  for (auto end = std::size_t{0}, at = end; at != std::string::npos;) {
    at = text.find_first_not_of(kSeparators, end);
    end = std::min(text.find_first_of(kSeparators, at), text.size());
    if (at != std::string::npos) tokens.push_back(text.substr(at, end - at));
  }
  return tokens;
}

std::optional<std::uint32_t> number(const std::string& token) {
  std::uint64_t value = 0;
  for (const char c : token) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
    if (value > 4294967295U) return std::nullopt;
  }
  return static_cast<std::uint32_t>(value);
}

__extension__ using Wide = __int128;

Wide negative_from_2_to_31(std::uint32_t value) {
  return value < 2147483648U ? Wide{value} : Wide{value} - Wide{4294967296};
}

std::optional<int64> oracle(const std::string& text) {
  Wide sum = 0;
  Wide unit = 4294967296;
  const test::Texts tokens = split(text);
  if (tokens.size() != 3) return std::nullopt;
  for (const std::string& token : tokens) {
    const std::optional<std::uint32_t> part = number(token);
    if (!part) return std::nullopt;
    sum += negative_from_2_to_31(*part) * unit;
    unit /= 256;
  }
  const Wide range = Wide{1} << 64U;
  if (sum > Wide{INT64_MAX}) sum -= range;
  if (sum < Wide{INT64_MIN}) sum += range;
  return static_cast<int64>(sum);
}

/// Texts of random letters, or of numbers and separators. Most have three numbers and get past the count.
struct TextGenerator {
  std::size_t below(std::size_t bound) { return static_cast<std::size_t>(random() % bound); }
  char separator() { return kSeparators[below(kSeparators.size())]; }

  char letter() {
    const char others[] = {separator(), separator(), static_cast<char>(0x80 + below(0x80)),
                           below(4) == 0 ? '\0' : static_cast<char>('a' + below(26))};
    const std::size_t choice = below(8);
    return choice < std::size(others) ? others[choice] : static_cast<char>('0' + below(10));
  }

  /// Half of them are next to a limit, the others of any length.
  std::string number() {
    static constexpr std::uint64_t kEdges[] = {0,          1,          254,        255,        256,
                                               257,        2147483647, 2147483648, 2147483649, 4294967294,
                                               4294967295, 4294967296, 4294967297};
    const std::uint64_t value =
        below(2) == 0 ? kEdges[below(std::size(kEdges))] : (random() >> 32U) >> below(32);
    return std::string(below(4) == 0 ? below(5) : 0, '0') + std::to_string(value);
  }

  std::string text() {
    std::string text;
    if (below(2) == 0) {
      for (std::size_t length = below(65); text.size() < length;) text += letter();
      return text;
    }
    text.assign(below(3), separator());
    for (std::size_t count = below(4) == 0 ? below(6) : 3; count > 0; --count) {
      text += number() + std::string(below(3) + 1, separator());
    }
    if (below(40) == 0 && !text.empty()) text[below(text.size())] = letter();
    return text.substr(0, 64);
  }

  std::mt19937_64 random{4541};
};

#ifdef CONFSAVE_SANITIZED
constexpr int kTexts = 100'000;
#else
constexpr int kTexts = 1'000'000;
#endif

TEST(VersionConversion, ManyTextsAgreeWithAnOracle) {
  TextGenerator generator;
  int accepted = 0;
  for (int i = 0; i < kTexts; ++i) {
    const std::string text = generator.text();
    const std::optional<int64> expected = oracle(text);
    Config config(1);
    ASSERT_EQ(config.vers_convert(text), expected.has_value()) << "text " << i << ": " << text;
    ASSERT_EQ(config.vers, expected.value_or(0)) << "text " << i << ": " << text;
    // What is printed reads as the same version, except that a sign would be a separator.
    if (expected > 0) {
      ASSERT_EQ(convert(config.version()), expected) << "text " << i << ": " << text;
    }
    if (expected) ++accepted;
  }
  // Both results are frequent among the texts.
  EXPECT_GT(accepted, kTexts / 10);
  EXPECT_LT(accepted, kTexts / 10 * 9);
}

}  // namespace
