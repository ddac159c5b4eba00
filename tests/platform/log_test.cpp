#include "kelmor/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

namespace {

const ClUnilogFname kFunction{"void f(int)", "f"};
const std::string kLineBegins = "level=2 source=source/x:12 function=\"void f(int)\" name=f text=opening ";

struct LogSink : testing::Test {
  LogSink() {
    std::filesystem::remove(file);
    setenv("KELMOR_LOG_FILE", file.c_str(), 1);
  }
  ~LogSink() override {
    std::filesystem::remove(file);
    unsetenv("KELMOR_LOG_FILE");
    unsetenv("KELMOR_LOG_LEVEL");
  }

  static int level() { return KorvLog_GetProps_cl_module(0)->level; }

  std::string written() const {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
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

TEST_F(LogSink, LevelIsADigitOfTheEnvironmentAndOtherwise1) {
  EXPECT_EQ(level(), 1);
  for (int digit = 0; digit <= 4; ++digit) {
    setenv("KELMOR_LOG_LEVEL", std::to_string(digit).c_str(), 1);
    EXPECT_EQ(level(), digit);
  }
  for (const char* value : {"", "5", "-1", "x", "22", "1 "}) {
    setenv("KELMOR_LOG_LEVEL", value, 1);
    EXPECT_EQ(level(), 1) << value;
  }
}

TEST_F(LogSink, LevelOfAThreadStaysUntilItsNextCall) {
  setenv("KELMOR_LOG_LEVEL", "2", 1);
  const KorvLogProps* log = KorvLog_GetProps_cl_module(0);
  setenv("KELMOR_LOG_LEVEL", "3", 1);
  int other = 0;
  std::thread([&other] { other = level(); }).join();
  EXPECT_EQ(other, 3);
  EXPECT_EQ(log->level, 2);
}

/// What a host keeps for each thread may log when the thread ends.
struct Late {
  ~Late() { write_late(); }
  std::function<void()> write_late;
};

TEST_F(LogSink, RecordIsWrittenWhenTheThreadEnds) {
  const std::string longer(100, 'l');
  std::thread([&longer] {
    thread_local Late late;
    late.write_late = [&longer] { write_record(longer); };
    write_record(longer);
  }).join();
  EXPECT_EQ(written(), kLineBegins + longer + "\n" + kLineBegins + longer + "\n");
}

TEST_F(LogSink, RecordIsOneWholeLine) {
  write_record("text");
  write_record("more");
  EXPECT_EQ(written(), kLineBegins + "text\n" + kLineBegins + "more\n");
}

TEST_F(LogSink, LineFeedAtTheEndIsDroppedAndControlCharactersAreEscaped) {
  write_record("a\nb\tc\x7f\x1b[0m\n");
  EXPECT_EQ(written(), kLineBegins + "a\\x0ab\\x09c\\x7f\\x1b[0m\n");
}

TEST_F(LogSink, IntegersOfEveryWidthAreWritten) {
  const KorvLogProps* log = KorvLog_GetProps_cl_module(0);
  const std::int8_t one = -1;
  const std::int16_t two = -300;
  const std::int32_t four = -70000;
  const std::int64_t eight = -17264017408;
  log->begin(1, kFunction, "s", 1);
  for (const auto& [value, width] :
       {std::pair<const void*, unsigned>(&one, 1), {&two, 2}, {&four, 4}, {&eight, 8}, {&eight, 3}}) {
    log->integer(value, width);
    log->text(" ");
  }
  log->end();
  EXPECT_EQ(written(),
            "level=1 source=s:1 function=\"void f(int)\" name=f text=-1 -300 -70000 -17264017408 ? \n");
}

TEST_F(LogSink, OnlyTheOwnerMayReadTheFile) {
  const mode_t before = umask(0);
  write_record("text");
  umask(before);
  struct stat status = {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(LogSink, FileThatCannotBeWrittenIsIgnored) {
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
    ASSERT_EQ(line, kLineBegins + std::string(500, line.back()));
  }
  EXPECT_EQ(lines, kProcesses * kRecords);
}

}  // namespace
