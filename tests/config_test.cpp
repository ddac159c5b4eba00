#include "integers.h"

#include <cstdint>
#include <sstream>

#include "support/gateway.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;

template <class Value>
std::string shown(const Value& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

std::string line(int64 version, conftype type, int64 load_time = 0) {
  test::set_zone("UTC");
  Config config(version);
  config.name = "weekly";
  config.type = type;
  config.save_time = 1488377100;
  config.load_time = load_time;
  return shown(config);
}

TEST(Constants, HaveTheirValues) {
  EXPECT_EQ(CURRENT_VERSION, 17264017408);
  EXPECT_EQ(VALID_NAME_CHARS, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_");
  EXPECT_EQ(YES_NO_SUFFIX, " [Yes/No] ");
  static_assert(std::is_same_v<std::underlying_type_t<conftype>, std::int32_t>);
  EXPECT_EQ(static_cast<int>(conf_none), 0);
  EXPECT_EQ(static_cast<int>(conf_full), 1);
  EXPECT_EQ(static_cast<int>(conf_part), 2);
  EXPECT_EQ(static_cast<int>(conf_corlu), 3);
}

TEST(ConfigRecord, NewOneIsSavedNowAndNeverLoaded) {
  const std::time_t before = std::time(nullptr);
  const Config config(-7);
  EXPECT_EQ(config.name, "");
  EXPECT_EQ(config.type, conf_none);
  EXPECT_EQ(config.vers, -7);
  EXPECT_GE(config.save_time, before);
  EXPECT_LE(config.save_time, std::time(nullptr));
  EXPECT_EQ(config.load_time, 0);
}

TEST(ConfigRecord, EachTimeIsUpdatedSeparately) {
  Config config(0);
  config.save_time = 1;
  const std::time_t before = std::time(nullptr);
  config.update_load_time();
  EXPECT_GE(config.load_time, before);
  EXPECT_EQ(config.save_time, 1);
  config.load_time = 2;
  config.update_save_time();
  EXPECT_GE(config.save_time, before);
  EXPECT_EQ(config.load_time, 2);
}

TEST(VersionText, ZeroIsEmpty) {
  EXPECT_EQ(Config::version(0), "");
  EXPECT_EQ(Config(0).version(), "");
}

TEST(VersionText, ComponentsAreDecimal) {
  const test::GroupedDigits grouped;
  EXPECT_EQ(Config::version(4294967296), "1.0.0");
  EXPECT_EQ(Config::version(43135008768), "10.11.12");
  EXPECT_EQ(Config::version(65536), "0.0.1");
  EXPECT_EQ(Config::version(int64{123456} << 32), "123456.0.0");
  EXPECT_EQ(Config::version(-1), "-1.255.255");
  EXPECT_EQ(Config::version(INT64_MIN), "-2147483648.0.0");
  EXPECT_EQ(Config::version(INT64_MAX), "2147483647.255.255");
  EXPECT_EQ(Config(17264017408).version(), "4.5.4");
}

TEST(VersionText, Low16BitsAreNotPrinted) {
  EXPECT_EQ(Config::version(17230397439), "4.3.2");
  EXPECT_EQ(Config::version(1), "0.0.0");
}

TEST(LowAndHighHalves, AreSignedForAnyValue) {
  EXPECT_EQ(low32(0x7fffffff), 2147483647);
  EXPECT_EQ(low32(0x80000000), INT32_MIN);
  EXPECT_EQ(low32(-1), -1);
  EXPECT_EQ(low32(0x100000001), 1);
  EXPECT_EQ(low32(INT64_MIN), 0);
  EXPECT_EQ(high32(INT64_MIN), INT32_MIN);
  EXPECT_EQ(high32(-1), -1);
  EXPECT_EQ(high32(0x7fffffffffffffff), INT32_MAX);
  EXPECT_EQ(high32(0xffffffff), 0);
}

TEST(TimeText, IsLocalTime) {
  test::set_zone("XXX-3");
  EXPECT_EQ(time_format(1488377100), "01.03.2017 at 17:05");
  EXPECT_EQ(time_format(-1), "01.01.1970 at 02:59");
  EXPECT_EQ(time_format(253402300800), "01.01.10000 at 03:00");
  // Without a calendar date.
  EXPECT_EQ(time_format(INT64_MAX), "");
}

TEST(TypeText, EachTypeHasItsWord) {
  EXPECT_EQ(shown(conf_full) + " " + shown(conf_part) + " " + shown(conf_corlu), "full part corlu");
  EXPECT_EQ(shown(conf_none) + shown(static_cast<conftype>(7)) + shown(static_cast<conftype>(-1)), "");
}

TEST(RecordText, IsOneLineWithoutALineFeed) {
  const std::string saved = "\"weekly\",\tversion 4.5.4,\tfull, saved on 01.03.2017 at 14:05, ";
  EXPECT_EQ(line(CURRENT_VERSION, conf_full), saved + "never loaded");
  EXPECT_EQ(line(CURRENT_VERSION, conf_full, 1488447000), saved + "loaded at 02.03.2017 at 09:30");
  EXPECT_EQ(line(CURRENT_VERSION, conf_full, -1), saved + "loaded at 31.12.1969 at 23:59");
}

TEST(RecordText, VersionZeroIsNotPrinted) {
  EXPECT_EQ(line(0, conf_full), "\"weekly\",\tfull, saved on 01.03.2017 at 14:05, never loaded");
}

TEST(RecordText, UnknownTypeIsNotPrinted) {
  EXPECT_EQ(line(0, static_cast<conftype>(7)), "\"weekly\",\t, saved on 01.03.2017 at 14:05, never loaded");
}

TEST(FailedStream, StaysUnchanged) {
  for (const auto state : {std::ios::eofbit, std::ios::failbit, std::ios::badbit}) {
    std::ostringstream out;
    out.setstate(state);
    EXPECT_EQ(&(out << Config(CURRENT_VERSION)), &out);
    EXPECT_EQ(&(out << conf_full), &out);
    EXPECT_EQ(out.rdstate(), state);
    out.clear();
    EXPECT_EQ(out.str(), "");
  }
}

template <class Exception>
void expect_status_class() {
  static_assert(std::is_base_of_v<XTOOStatus, Exception>);
  const Exception bare(36, true);
  EXPECT_EQ(bare.Status(), 36);
  EXPECT_STREQ(bare.ErrorMessage(), "");
  const Exception with_text(0, "text", false);
  EXPECT_EQ(with_text.Status(), 0);
  EXPECT_STREQ(with_text.ErrorMessage(), "text");
}

TEST(Exceptions, HaveStatusAndText) {
  expect_status_class<XExternalFailure>();
  expect_status_class<XCancel>();
  expect_status_class<XNotFound>();
  expect_status_class<XAmbiguity>();
  expect_status_class<XConstraint>();
}

TEST(Exceptions, XChdirIsAnExternalFailureWithADirectory) {
  static_assert(std::is_base_of_v<XExternalFailure, XChdir>);
  EXPECT_EQ(XChdir(2, true, "/a").Directory(), "/a");
  const XChdir with_text(0, "text", false, "/b");
  EXPECT_EQ(with_text.Directory(), "/b");
  EXPECT_STREQ(with_text.ErrorMessage(), "text");
}

}  // namespace
