#include "kelmor/system.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace {

/// Changes a signal's disposition while it lives.
class Disposition {
 public:
  Disposition(int number, struct sigaction action) : number_(number) {
    sigaction(number, &action, &before_);
  }
  Disposition(const Disposition&) = delete;
  Disposition& operator=(const Disposition&) = delete;
  ~Disposition() { sigaction(number_, &before_, nullptr); }

 private:
  int number_;
  struct sigaction before_ = {};
};

struct sigaction handled_by(sighandler_t handler, int flags = 0) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  return action;
}

struct sigaction current(int number) {
  struct sigaction action = {};
  sigaction(number, nullptr, &action);
  return action;
}

struct CommandRunner : testing::Test {
  ~CommandRunner() override { std::filesystem::remove(file); }

  /// What a command writes to its standard output.
  std::string output_of(const std::string& command) const {
    EXPECT_EQ(my_system("{ %s; } >%s", command.c_str(), file.c_str()), 0) << command;
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  const std::string file = "/tmp/confsave-command-" + std::to_string(getpid());
};

TEST_F(CommandRunner, ReturnsTheExitStatusThatAShellGives) {
  for (const auto& [command, status] : {std::pair("true", 0),
                                        {"", 0},
                                        {"exit 1", 1},
                                        {"exit 255", 255},
                                        {"/missing/command 2>/dev/null", 127},
                                        {"/tmp 2>/dev/null", 126},
                                        {"kill -TERM $$", 128 + SIGTERM},
                                        {"kill -KILL $$", 128 + SIGKILL}}) {
    EXPECT_EQ(my_system(command), status) << command;
  }
}

TEST_F(CommandRunner, FormsTheCommandAsPrintfDoes) {
  EXPECT_EQ(output_of("echo 100%; printf '%s'"), "100%\n");
  EXPECT_EQ(my_system("test %d -eq %s && test '%%' = '%c'", 42, "42", '%'), 0);
  EXPECT_EQ(my_system("test '%s' = '%s' || exit 9; exit 3", "", ""), 3);
}

TEST_F(CommandRunner, RunsACommandAsLongAsTheSystemAllows) {
  EXPECT_EQ(output_of("printf %s " + std::string(100000, 'x')).size(), 100000U);
  EXPECT_EQ(my_system("true %s", std::string(1 << 20, 'x').c_str()), 127);
}

TEST_F(CommandRunner, KeepsUnsafeVariablesFromTheCommand) {
  const char* const unsafe[] = {
      "TAR_OPTIONS",    "GZIP",     "TAPE", "POSIXLY_CORRECT", "LD_LIBRARY_PATH", "LD_BIND_NOW",
      "TAR_RSH",        "BASH_ENV", "ENV",  "CDPATH",          "BASH_FUNC_tar%%", "SIMPLE_BACKUP_SUFFIX",
      "VERSION_CONTROL"};
  for (const char* name : unsafe) setenv(name, "unsafe-value", 1);
  setenv("CONFSAVE_TEST_SAFE", "safe-value", 1);
  setenv("GZIPPED", "near-miss", 1);
  const std::string environment = output_of("env");
  for (const char* name : unsafe) unsetenv(name);
  EXPECT_EQ(environment.find("unsafe-value"), std::string::npos) << environment;
  EXPECT_NE(environment.find("CONFSAVE_TEST_SAFE=safe-value\n"), std::string::npos);
  EXPECT_NE(environment.find("GZIPPED=near-miss\n"), std::string::npos);
  EXPECT_NE(environment.find("PATH="), std::string::npos);
}

TEST_F(CommandRunner, ReturnsTheStatusInAHostThatIgnoresItsChildren) {
  for (const auto& action : {handled_by(SIG_IGN), handled_by(SIG_DFL, SA_NOCLDWAIT)}) {
    const Disposition ignoring(SIGCHLD, action);
    EXPECT_EQ(my_system("exit 7"), 7);
    EXPECT_EQ(my_system("true"), 0);
    EXPECT_EQ(my_system("sh -c 'exit 4'; exit $?"), 4);
    EXPECT_EQ(current(SIGCHLD).sa_handler, action.sa_handler);
    EXPECT_EQ(current(SIGCHLD).sa_flags & SA_NOCLDWAIT, action.sa_flags & SA_NOCLDWAIT);
  }
}

TEST_F(CommandRunner, ReturnsTheStatusInAHostThatReapsInAHandler) {
  const Disposition reaping(SIGCHLD, handled_by([](int) {
                              const int error = errno;
                              while (waitpid(-1, nullptr, WNOHANG) > 0) {
                              }
                              errno = error;
                            }));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(my_system("exit 7"), 7);
}

TEST_F(CommandRunner, LeavesTheHostsSignalsAsTheyWere) {
  const auto noop = [](int) {};
  const Disposition interrupt(SIGINT, handled_by(noop));
  const Disposition quit(SIGQUIT, handled_by(SIG_IGN));
  sigset_t before;
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  EXPECT_EQ(my_system("true"), 0);
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(current(SIGINT).sa_handler, static_cast<sighandler_t>(noop));
  EXPECT_EQ(current(SIGQUIT).sa_handler, SIG_IGN);
  for (int number = 1; number < 32; ++number) {
    EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << number;
  }
}

TEST_F(CommandRunner, InterruptEndsTheCommandAndNotTheHost) {
  // To the whole foreground group, as a terminal sends it.
  EXPECT_EQ(my_system("kill -INT %d; kill -INT $$", getpid()), 128 + SIGINT);
  EXPECT_EQ(my_system("kill -QUIT %d; kill -QUIT $$", getpid()), 128 + SIGQUIT);
}

TEST_F(CommandRunner, SignalThatTheHostIgnoresStaysIgnored) {
  const Disposition ignoring(SIGINT, handled_by(SIG_IGN));
  EXPECT_EQ(my_system("kill -INT $$; exit 5"), 5);
}

// The gzip that tar finds

struct Gzip : CommandRunner {
  Gzip() {
    std::filesystem::create_directories(dir + "/in");
    EXPECT_EQ(my_system("cp /usr/bin/tar %s/in/data", dir.c_str()), 0);
  }
  ~Gzip() override {
    unsetenv("KELMOR_GZIP");
    std::filesystem::remove_all(dir);
  }

  int pack() const { return my_system("cd %s/in && tar czf ../archive data", dir.c_str()); }
  int unpack() const {
    return my_system("mkdir -p %s/out && tar xzf %s/archive -C %s/out 2>/dev/null", dir.c_str(),
                     dir.c_str(), dir.c_str());
  }
  bool came_back() const {
    return my_system("cmp -s %s/in/data %s/out/data", dir.c_str(), dir.c_str()) == 0;
  }

  const std::string dir = "/tmp/confsave-gzip-" + std::to_string(getpid());
};

/// The stand-in's own first.
constexpr const char* kGzips[] = {"", "/usr/bin/gzip", "/usr/bin/igzip"};

TEST_F(Gzip, EitherReadsWhatTheOtherWrote) {
  for (const char* writer : kGzips) {
    for (const char* reader : kGzips) {
      std::filesystem::remove_all(dir + "/out");
      setenv("KELMOR_GZIP", writer, 1);
      ASSERT_EQ(pack(), 0) << writer;
      setenv("KELMOR_GZIP", reader, 1);
      EXPECT_EQ(unpack(), 0) << writer << ", " << reader;
      EXPECT_TRUE(came_back()) << writer << ", " << reader;
    }
  }
}

TEST_F(Gzip, BrokenStreamsFailWithEither) {
  const std::string keep = "cp archive whole; size=$(stat -c %s whole); ";
  const std::string overwrite = "printf '\\125\\252' | dd of=archive bs=1 conv=notrunc status=none ";
  const std::string damages[] = {
      "head -c $((size / 2)) whole >archive", "head -c $((size - 4)) whole >archive",
      overwrite + "seek=$((size / 2))",       overwrite + "seek=$((size - 8))",
      overwrite + "seek=$((size - 4))",       ": >archive",
      "echo this is no archive >archive"};
  for (const std::string& damage : damages) {
    ASSERT_EQ(pack(), 0);
    ASSERT_EQ(my_system("%s", ("cd " + dir + "; " + keep + damage).c_str()), 0) << damage;
    for (const char* reader : kGzips) {
      setenv("KELMOR_GZIP", reader, 1);
      EXPECT_NE(unpack(), 0) << reader << ": " << damage;
    }
  }
}

TEST_F(Gzip, FullDiskFailsWithEither) {
  for (const char* writer : kGzips) {
    setenv("KELMOR_GZIP", writer, 1);
    for (const char* what : {"data", "-T /dev/null"}) {
      EXPECT_NE(my_system("cd %s/in && tar czf /dev/full %s 2>/dev/null", dir.c_str(), what), 0)
          << writer << " " << what;
    }
    for (const char* name : {"in/data", "/dev/null"}) {
      EXPECT_NE(my_system("cd %s && gzip <%s >/dev/full 2>/dev/null", dir.c_str(), name), 0)
          << writer << " " << name;
    }
  }
}

TEST_F(Gzip, ProgramNamedInTheEnvironmentIsRun) {
  std::ofstream(dir + "/mine") << "#!/bin/sh\ntouch " << dir << "/called\nexec /usr/bin/gzip \"$@\"\n";
  std::filesystem::permissions(dir + "/mine", std::filesystem::perms::owner_all);
  setenv("KELMOR_GZIP", (dir + "/mine").c_str(), 1);
  EXPECT_EQ(pack(), 0);
  EXPECT_TRUE(std::filesystem::exists(dir + "/called"));
}

TEST_F(Gzip, MissingProgramFails) {
  setenv("KELMOR_GZIP", "/missing/gzip", 1);
  EXPECT_NE(my_system("cd %s/in && tar czf ../archive data 2>/dev/null", dir.c_str()), 0);
}

TEST_F(Gzip, WhatTarDoesNotAskForIsLeftToTheSystem) {
  const char* const program = "gzip --version 2>&1 | head -n 1 | cut -d ' ' -f 1";
  EXPECT_EQ(output_of(program), "gzip\n");
  setenv("KELMOR_GZIP", "/usr/bin/igzip", 1);
  EXPECT_EQ(output_of(program), "igzip\n");
}

TEST_F(Gzip, UnpacksMembersUpToWhatIsNone) {
  const std::pair<const char*, const char*> streams[] = {
      {"echo a | gzip", "a\n0\n"},
      {"echo a | gzip; echo b | /usr/bin/gzip", "a\nb\n0\n"},
      {"true | gzip", "0\n"},
      {"echo a | gzip; head -c 100000 /dev/zero", "a\n0\n"},
      {"echo a | gzip; echo garbage", "a\n0\n"},
      {"echo a | gzip; echo b | gzip | head -c 12", "a\nb1\n"},
      {"echo a | gzip; printf '\\037\\213'", "a\n1\n"},
      {"echo a | gzip | head -c 5", "1\n"},
      {"head -c 100 /dev/zero", "1\n"},
      {"true", "1\n"},
      {"for i in $(seq 300); do echo a | gzip; done | gzip -d | wc -l | gzip", "300\n0\n"},
  };
  for (const auto& [stream, answer] : streams) {
    const std::string command = std::string("{ ") + stream + "; } | { gzip -d 2>/dev/null; echo $?; }";
    EXPECT_EQ(output_of(command), answer) << stream;
  }
}

/// The last read is the one that finds the end.
TEST_F(Gzip, AnErrorBehindAMemberIsNotTheEnd) {
  // A sanitizer that looks for leaks cannot do so while it is traced.
  const std::string command = "cd " + dir + "; export ASAN_OPTIONS=detect_leaks=0; echo a | gzip >a.gz; " +
                              "strace -qq -o calls -e trace=read gzip -d <a.gz >unpacked; " +
                              "last=$(grep -n 'read(0' calls | tail -n 1 | cut -d : -f 1); " +
                              "strace -qq -o again -e trace=read -e inject=read:error=EIO:when=$last " +
                              "gzip -d <a.gz 2>&1 >unpacked; echo $?; cat unpacked";
  EXPECT_EQ(output_of(command), "gzip: standard input: Input/output error\n1\na\n");
}

TEST_F(Gzip, RestOfThePathIsThatOfTheHost) {
  EXPECT_EQ(output_of("echo ${PATH#*:}"), std::string(std::getenv("PATH")) + "\n");
}

}  // namespace
