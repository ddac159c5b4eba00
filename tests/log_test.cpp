#include "log.h"

#include <algorithm>
#include <cstdint>

#include "archive/pack.h"
#include "support/gateway.h"

namespace {

using namespace test;

using ConfSave::KovrLogHelper;
using ConfSave::log_text;

const ClUnilogFname kFunction{"void f(int)", "f"};

Texts calls;

/// Entry points that record each call and its arguments.
const KorvLogProps kRecording = {
    0,
    [](int level, const ClUnilogFname& function, const char* source, int) {
      calls.push_back("begin " + std::to_string(level) + " " + function.Signature() + " " +
                      function.Name() + " " + source);
    },
    [](const char* text) { calls.push_back(std::string("text ") + text); },
    [](const char* text) { calls.push_back(std::string("builder_text ") + text); },
    [](const void*, unsigned width) { calls.push_back("integer " + std::to_string(width)); },
    [] { calls.emplace_back("end"); }};

struct LogRecordBuilder : Gateway {
  LogRecordBuilder() {
    calls.clear();
    host.entry_points = kRecording;
  }

  static void write() {
    if (KovrLogHelper record{2, kFunction, "source/x", "opening"}) {
      record << "a" << std::string("b") << 1 << std::int64_t{2};
    }
  }

  const Texts all{"begin 2 void f(int) f source/x",
                  "text opening",
                  "builder_text a",
                  "builder_text b",
                  "integer 4",
                  "integer 8",
                  "end"};
};

TEST_F(LogRecordBuilder, EachMissingEntryPointIsSkipped) {
  const auto without = [this](std::initializer_list<std::size_t> skipped) {
    Texts rest;
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (std::find(skipped.begin(), skipped.end(), i) == skipped.end()) rest.push_back(all[i]);
    }
    calls.clear();
    write();
    EXPECT_EQ(calls, rest);
    host.entry_points = kRecording;
  };
  without({});
  host.entry_points.begin = nullptr;
  without({0});
  host.entry_points.text = nullptr;
  without({1});
  host.entry_points.builder_text = nullptr;
  without({2, 3});
  host.entry_points.integer = nullptr;
  without({4, 5});
  host.entry_points.end = nullptr;
  without({6});
}

TEST_F(LogRecordBuilder, NothingIsWrittenWithoutProperties) {
  host.no_log = true;
  write();
  log_text(1, kFunction, "source/x", "text");
  EXPECT_EQ(calls, Texts());
}

TEST_F(LogRecordBuilder, NothingIsComputedBelowTheLevel) {
  bool computed = false;
  const auto piece = [&computed] {
    computed = true;
    return "piece";
  };
  host.log_level = 1;
  if (KovrLogHelper record{2, kFunction, "source/x", "opening"}) record << piece();
  EXPECT_FALSE(computed);
  EXPECT_EQ(calls, Texts());
  host.log_level = 2;
  if (KovrLogHelper record{2, kFunction, "source/x", "opening"}) record << piece();
  EXPECT_TRUE(computed);
}

TEST_F(LogRecordBuilder, NullTextIsSkipped) {
  if (KovrLogHelper record{1, kFunction, "source/x", "opening"})
    record << static_cast<const char*>(nullptr);
  EXPECT_EQ(calls, (Texts{"begin 1 void f(int) f source/x", "text opening", "end"}));
}

TEST_F(LogRecordBuilder, IntegersHaveValueAndWidth) {
  host.reset();
  if (KovrLogHelper record{1, kFunction, "source/x", "<"}) {
    record << -1 << " " << std::uint32_t{7} << " " << std::int64_t{-17264017408} << ">";
  }
  EXPECT_EQ(host.records,
            (LogRecords{{1, "void f(int)", "f", "source/x", "<-1 7 -17264017408>", {4, 4, 8}}}));
}

TEST_F(LogRecordBuilder, LineIsThatOfTheRecord) {
  host.reset();
  log_text(1, kFunction, "source/x", "text");
  const int line = __LINE__ - 1;
  EXPECT_EQ(host.records, (LogRecords{{1, "void f(int)", "f", "source/x", "text", {}}}));
  EXPECT_EQ(host.lines, std::vector<int>{line});
}

using SilentLog = Gateway;

TEST_F(SilentLog, GetsNoRecordOfAnyFailure) {
  host.log_level = 0;
  write_file(config_dir() + "file", "");
  EXPECT_NE(thrown([this] { ConfSave::IsFileExist((config_dir() + "file/x").c_str()); }), "nothing");
  EXPECT_NE(thrown([this] { ConfSave::pack("/missing/x", config_dir(), " file"); }), "nothing");
  EXPECT_NE(thrown([this] { ConfSave::unpack("x", root() + "/missing"); }), "nothing");
  put({"autosave-1", kCurrent});
  put({"corlu", 0, 3, "1", "1", "x'00'", "NULL"});
  host.on_system_log = throwing(7);
  ConfSave::Storage storage;
  ConfSave::CleanAutosaves(storage, 0);
  EXPECT_NE(thrown([&] { storage.Load("corlu", nullptr, 0, true); }), "nothing");
  make_storage_unopenable();
  EXPECT_FALSE(ConfSave::Storage().opened);
  EXPECT_EQ(host.records, LogRecords());
}

}  // namespace
