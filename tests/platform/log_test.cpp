#include "kelmor/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

const ClUnilogFname kFunction{"void f(int)", "f"};

class LogSink : public testing::Test {
 protected:
  LogSink() {
    std::filesystem::remove(file);
    setenv("KELMOR_LOG_FILE", file.c_str(), 1);
  }
  ~LogSink() override {
    std::filesystem::remove(file);
    unsetenv("KELMOR_LOG_FILE");
    unsetenv("KELMOR_LOG_LEVEL");
  }

  static int level_for(const char* value) {
    setenv("KELMOR_LOG_LEVEL", value, 1);
    return KorvLog_GetProps_cl_module(0)->level;
  }

  std::string written() const {
    std::ifstream stream(file);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
  }

  static void write_record(const std::string& text) {
    const KorvLogProps* log = KorvLog_GetProps_cl_module(0);
    log->begin(2, kFunction, "source/x", 12);
    log->text("opening ");
    log->builder_text(text.c_str());
    log->end();
  }

  const std::string file = "/tmp/confsave-log-" + std::to_string(getpid());
};

TEST_F(LogSink, TheLevelIsThatOfTheEnvironment) {
  for (int level = 0; level <= 4; ++level) EXPECT_EQ(level_for(std::to_string(level).c_str()), level);
}

TEST_F(LogSink, AnyOtherLevelIsFailuresOnly) {
  for (const char* value : {"", "5", "-1", "x", "22", "1 "}) EXPECT_EQ(level_for(value), 1) << value;
  unsetenv("KELMOR_LOG_LEVEL");
  EXPECT_EQ(KorvLog_GetProps_cl_module(0)->level, 1);
}

TEST_F(LogSink, ARecordIsOneWholeLine) {
  write_record("text");
  write_record("more");
  EXPECT_EQ(written(),
            "level=2 source=source/x:12 function=\"void f(int)\" name=f text=opening text\n"
            "level=2 source=source/x:12 function=\"void f(int)\" name=f text=opening more\n");
}

TEST_F(LogSink, ItsOwnLineEndIsDroppedAndControlCharactersAreShown) {
  write_record("a\nb\tc\x7f\x1b[0m\n");
  EXPECT_EQ(written(),
            "level=2 source=source/x:12 function=\"void f(int)\" name=f "
            "text=opening a\\x0ab\\x09c\\x7f\\x1b[0m\n");
}

TEST_F(LogSink, IntegersOfEveryWidthAreShown) {
  const KorvLogProps* log = KorvLog_GetProps_cl_module(0);
  const std::int8_t one = -1;
  const std::int16_t two = -300;
  const std::int32_t four = -70000;
  const std::int64_t eight = -17264017408;
  log->begin(1, kFunction, "s", 1);
  log->integer(&one, 1);
  log->text(" ");
  log->integer(&two, 2);
  log->text(" ");
  log->integer(&four, 4);
  log->text(" ");
  log->integer(&eight, 8);
  log->text(" ");
  log->integer(&eight, 3);
  log->end();
  EXPECT_EQ(written(),
            "level=1 source=s:1 function=\"void f(int)\" name=f text=-1 -300 -70000 -17264017408 ?\n");
}

TEST_F(LogSink, TheFileIsTheOwnersAlone) {
  const mode_t before = umask(0);
  write_record("text");
  umask(before);
  struct stat status = {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(LogSink, AFileThatCannotBeWrittenIsNoFailure) {
  setenv("KELMOR_LOG_FILE", "/missing/log", 1);
  write_record("text");
  EXPECT_FALSE(std::filesystem::exists("/missing"));
}

TEST_F(LogSink, RecordsOfSeveralProcessesDoNotMix) {
  constexpr int kProcesses = 4;
  constexpr int kRecords = 200;
  for (int i = 0; i < kProcesses; ++i) {
    if (fork() == 0) {
      for (int n = 0; n < kRecords; ++n) write_record(std::string(500, static_cast<char>('a' + i)));
      _exit(0);
    }
  }
  for (int i = 0; i < kProcesses; ++i) wait(nullptr);
  std::ifstream stream(file);
  int lines = 0;
  for (std::string line; std::getline(stream, line); ++lines) {
    const std::string expected =
        "level=2 source=source/x:12 function=\"void f(int)\" name=f text=opening " +
        std::string(500, line.back());
    ASSERT_EQ(line, expected);
  }
  EXPECT_EQ(lines, kProcesses * kRecords);
}

}  // namespace
