#include "confsave.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <locale>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace {

using ConfSave::Config;
using ConfSave::int64;

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
  for (const Conversion& expected : conversions) {
    EXPECT_EQ(convert(expected.text), std::optional<int64>(expected.number)) << expected.text;
    EXPECT_EQ(Config::version(expected.number), expected.printed) << expected.text;
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
  for (const std::string text : {"",
                                 " ",
                                 "...",
                                 "4",
                                 "4.5",
                                 "4.5.4.1",
                                 "4.5.4-rc1",
                                 "1.2.3.4.5",
                                 "4.5.4b",
                                 "v4.5.4",
                                 "4.x.4",
                                 "0x4.5.4",
                                 "4.5.1e3",
                                 "4.5.4294967296",
                                 "4294967296.5.4",
                                 "4.4294967296.4",
                                 "4.5.99999999999999999999999",
                                 "4.5.4\xff",
                                 "4\x80.5.4",
                                 "\xa0.5.4",
                                 "4.\xe2\x80\xa2.4"}) {
    EXPECT_EQ(convert(text), std::nullopt) << text;
  }
  EXPECT_EQ(convert(std::string("4\0.5.4", 6)), std::nullopt);
  EXPECT_EQ(convert(std::string("4.5.4.\0", 7)), std::nullopt);
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

/// Groups three digits, with a letter.
struct LetterGrouping : std::numpunct<char> {
  std::string do_grouping() const override { return "\3"; }
  char do_thousands_sep() const override { return 'x'; }
};

TEST(VersionConversion, GroupingLocaleHasNoEffect) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new LetterGrouping));
  EXPECT_EQ(convert("1000.5.4"), std::optional<int64>(4295051444224));
  EXPECT_EQ(convert("1x000.5.4"), std::nullopt);
  std::locale::global(before);
}

TEST(VersionConversion, EveryVersionInRangeIsPrintedAsItWasRead) {
  std::mt19937_64 random(20170301);
  for (int i = 0; i < 100000; ++i) {
    const std::uint64_t bits = random();
    const std::string text = std::to_string((bits >> 32U) & 0x7fffffffU) + "." +
                             std::to_string((bits >> 24U) & 0xffU) + "." +
                             std::to_string((bits >> 16U) & 0xffU);
    Config config(0);
    ASSERT_TRUE(config.vers_convert(text)) << text;
    ASSERT_EQ(config.version(), text == "0.0.0" ? "" : text);
  }
}

// An independent oracle: characters by table, numbers digit by digit, the sum in 128 bits.

const std::string kSeparators = " \t\n\v\f\r!\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~";

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> tokens;
  bool inside = false;
  for (const char c : text) {
    if (kSeparators.find(c) != std::string::npos) {
      inside = false;
      continue;
    }
    if (!inside) tokens.emplace_back();
    inside = true;
    tokens.back() += c;
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
  const std::vector<std::string> tokens = split(text);
  if (tokens.size() != 3) return std::nullopt;
  std::array<std::uint32_t, 3> parts{};
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const std::optional<std::uint32_t> part = number(tokens[i]);
    if (!part) return std::nullopt;
    parts[i] = *part;
  }
  Wide sum = negative_from_2_to_31(parts[0]) * 4294967296 + negative_from_2_to_31(parts[1]) * 16777216 +
             negative_from_2_to_31(parts[2]) * 65536;
  const Wide range = Wide{1} << 64U;
  if (sum > Wide{INT64_MAX}) sum -= range;
  if (sum < Wide{INT64_MIN}) sum += range;
  return static_cast<int64>(sum);
}

class TextGenerator {
 public:
  explicit TextGenerator(std::uint64_t seed) : random_(seed) {}

  std::string text() { return below(2) == 0 ? letters() : components(); }

 private:
  std::size_t below(std::size_t bound) { return static_cast<std::size_t>(random_() % bound); }

  char letter() {
    switch (below(8)) {
      case 0:
        return static_cast<char>(0x80 + below(0x80));
      case 1:
        return below(4) == 0 ? '\0' : static_cast<char>('a' + below(26));
      case 2:
      case 3:
        return separator();
      default:
        return static_cast<char>('0' + below(10));
    }
  }

  char separator() { return kSeparators[below(kSeparators.size())]; }

  std::string letters() {
    std::string text;
    for (std::size_t length = below(65); text.size() < length;) text += letter();
    return text;
  }

  /// Mostly three, so that most texts get past the count.
  std::string components() {
    std::string text(below(3), separator());
    const std::size_t count = below(4) == 0 ? below(6) : 3;
    for (std::size_t i = 0; i < count; ++i) {
      text += component();
      for (std::size_t n = below(3) + 1; n > 0; --n) text += separator();
    }
    if (below(40) == 0 && !text.empty()) text[below(text.size())] = letter();
    text.resize(std::min<std::size_t>(text.size(), 64));
    return text;
  }

  std::string component() {
    static constexpr std::uint64_t kEdges[] = {0,          1,          254,        255,        256,
                                               257,        2147483647, 2147483648, 2147483649, 4294967294,
                                               4294967295, 4294967296, 4294967297};
    const std::uint64_t value = below(2) == 0 ? kEdges[below(std::size(kEdges))] : below(600);
    return std::string(below(4) == 0 ? below(5) : 0, '0') + std::to_string(value);
  }

  std::mt19937_64 random_;
};

TEST(VersionConversion, AMillionTextsAgreeWithAnOracle) {
  constexpr std::uint64_t kSeed = 4541;
  TextGenerator generator(kSeed);
  int accepted = 0;
  for (int i = 0; i < 1000000; ++i) {
    const std::string text = generator.text();
    const std::optional<int64> expected = oracle(text);
    Config config(1);
    ASSERT_EQ(config.vers_convert(text), expected.has_value()) << "text " << i << ": " << text;
    ASSERT_EQ(config.vers, expected.value_or(0)) << "text " << i << ": " << text;
    if (expected) ++accepted;
  }
  // Both results are frequent among the texts.
  EXPECT_GT(accepted, 100000);
  EXPECT_LT(accepted, 900000);
}

}  // namespace
