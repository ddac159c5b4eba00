#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <future>
#include <thread>

#include "snapshots/pending.h"
#include "snapshots/small_disk.h"
#include "snapshots/waiter.h"
#include "support/test_host.h"

namespace {

using namespace test;
using namespace std::chrono_literals;
using cs::Code;
using cs::When;
using Outcome = cs::Recovery::Outcome;

TEST_F(PendingTest, WhoWaitsTakesItBackInTime) {
  make_pending();
  timespec boot = {};
  clock_gettime(CLOCK_BOOTTIME, &boot);
  const auto deadline = boot.tv_sec * 1000 + boot.tv_nsec / 1'000'000 + 300;
  journal("update restore set deadline = " + std::to_string(deadline));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(reverted(When::when_due).outcome, Outcome::reverted);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  expect_as_before();
}

/// The next restore has a waiter of its own.
TEST_F(PendingTest, WhoWaitsEndsWhenTheRestoreIsConfirmed) {
  make_pending();
  auto waiter = std::async(std::launch::async, [] { return reverted(When::when_due).outcome; });
  std::this_thread::sleep_for(300ms);
  EXPECT_TRUE(cs::confirm());
  change();
  make_pending();
  EXPECT_EQ(waiter.wait_for(20s), std::future_status::ready);
  EXPECT_TRUE(*cs::pending());
  EXPECT_TRUE(cs::confirm());
  EXPECT_EQ(waiter.get(), Outcome::nothing);
  EXPECT_EQ(everything(), saved_);
}

/// What the program that waits has from its host: a session of its own, and no file.
TEST_F(PendingTest, WhoWaitsHasNothingOfTheHost) {
  const std::string script = root() + "/other";
  write_file(script, "#!/bin/sh\nprintf . >&3; exec 3>&-\nreadlink /proc/$$/fd/* >" + root() +
                         "/files\n{ echo $*; pwd; readlink /proc/$$/fd/2;"
                         " ps -o sid= -o ppid= -p $$; } >" +
                         root() + "/new\nmv " + root() + "/new " + root() + "/seen\n");
  shell("chmod 700 " + script);
  cs::RestoreOptions options = windowed();
  options.program = script;
  // "confsave.lock" gets a number that the waiter does not use.
  std::array<int, 8> opened{};
  for (int& file : opened) file = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_TRUE(cs::restore({"weekly"}, options));
  for (const int file : opened) close(file);
  for (int i = 0; i < 200 && !exists(root() + "/seen"); ++i) std::this_thread::sleep_for(20ms);
  const std::string files = read_file(root() + "/files");
  EXPECT_EQ(files.find(state_dir()), std::string::npos) << files;
  EXPECT_EQ(files.find(config_dir()), std::string::npos) << files;
  std::ifstream seen(root() + "/seen");
  std::string words;
  std::getline(seen, words);
  EXPECT_EQ(words, "revert --when-due");
  std::string directory;
  std::string terminal;
  long session = 0;
  long parent = 0;
  seen >> directory >> terminal >> session >> parent;
  EXPECT_EQ(directory, "/");
  EXPECT_EQ(terminal, "/dev/null");
  EXPECT_NE(session, getsid(0));
  EXPECT_NE(parent, getpid());
  reverted();
}

/// Forks that handlers saw in children of this process, and who this process is.
int* seen_in_children = nullptr;
pid_t host_process = 0;

/// Zeros that children of this process see, and may change.
void* shared_bytes(std::size_t size) {
  void* shared = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return shared != MAP_FAILED ? shared : nullptr;
}

void see_fork() {
  if (seen_in_children != nullptr && getpid() != host_process) ++*seen_in_children;
}

/// In a child of a host with threads, their locks may be taken, and those of the C library.
TEST_F(PendingTest, WhoWaitsIsStartedWithoutHandlersInAChild) {
  seen_in_children = static_cast<int*>(shared_bytes(sizeof(int)));
  ASSERT_NE(seen_in_children, nullptr);
  host_process = getpid();
  ASSERT_EQ(pthread_atfork(see_fork, nullptr, nullptr), 0);
  make_pending();
  EXPECT_EQ(*seen_in_children, 0);
  munmap(seen_in_children, sizeof(int));
  seen_in_children = nullptr;
  EXPECT_EQ(reverted().outcome, Outcome::reverted);
}

/// Whether a process that is its own waiter, and whose host has given up, goes on with SIGPIPE as it was.
bool leaves_sigpipe_alone(void (*handler)(int)) {
  const pid_t process = fork();
  if (process == 0) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0 || dup2(ends[1], 3) != 3) _exit(2);
    for (const int end : ends) {
      if (end != 3) close(end);
    }
    static_cast<void>(std::signal(SIGPIPE, handler));
    setenv("CONFSAVE_READY", "3", 1);
    cs::say_ready();
    const bool is_closed = fcntl(3, F_GETFD) == -1;
    _exit(is_closed && std::signal(SIGPIPE, SIG_DFL) == handler ? 0 : 1);
  }
  int status = -1;
  waitpid(process, &status, 0);
  return status == 0;
}

TEST_F(PendingTest, WhoWaitsKeepsTheSignalsOfTheHost) {
  EXPECT_TRUE(leaves_sigpipe_alone(SIG_DFL));
  EXPECT_TRUE(leaves_sigpipe_alone(SIG_IGN));
}

/// clearenv(3) leaves no list of variables.
TEST_F(PendingTest, WhoWaitsNeedsNoEnvironment) {
  const SmallDisk hidden("/run", 1 << 20);
  char** const before = environ;
  environ = nullptr;
  const cs::Error error = cs::start_waiter(waiter(), {});
  environ = before;
  EXPECT_EQ(error.code, Code::ok) << shown(error);
}

/// The effective user counts, as for what a program of another owner runs.
TEST_F(PendingTest, WhoWaitsIsRunByTheEffectiveUser) {
  const SmallDisk hidden("/run", 1 << 20);
  const std::string program = root() + "/program";
  shell("cp /bin/true " + program + " && chmod 700 " + program);
  if (setresuid(65534, 0, 0) != 0) GTEST_SKIP();
  const cs::Error error = cs::start_waiter(program, {});
  ASSERT_EQ(setresuid(0, 0, 0), 0);
  EXPECT_EQ(error.text, "the program ended before it waited for the end of the window");
}

TEST_F(PendingTest, WhoWaitsNeedsNoSystemdThatAnswers) {
  const SmallDisk hidden("/run", 1 << 20);
  shell("mkdir -p /run/systemd/system");
  make_pending();
  EXPECT_EQ(reverted().outcome, Outcome::reverted);
  expect_as_before();
}

TEST_F(PendingTest, TheSystemLogSaysWhoDidWhat) {
  auto& log = TestHost::instance().system_log;
  const auto last = [&log] {
    std::string line = log.empty() ? "" : log.back().second;
    // Who runs this test is not known.
    return line.substr(0, line.find(" user="));
  };
  log.clear();
  make_pending();
  const std::string which =
      " snapshot=weekly version=" + ConfSave::Config::version(ConfSave::CURRENT_VERSION);
  const std::string with_id = which + " id=1";
  EXPECT_EQ(last(), "confsave: action=load result=pending" + with_id);
  EXPECT_NE(log.back().second.find(" user="), std::string::npos);
  ASSERT_EQ(log.size(), 1U);
  EXPECT_EQ(refused(windowed()).code, Code::pending);
  EXPECT_EQ(last(), "confsave: action=load result=pending" + which +
                        " reason=\"the restore of 'weekly' waits to be confirmed\"");
  make_due();
  reverted(When::if_due);
  EXPECT_EQ(last().substr(0, last().find(" loaded-by=")),
            "confsave: action=revert result=ok" + with_id + " cause=\"not confirmed in time\"");
  EXPECT_NE(log.back().second.find(" loaded-by="), std::string::npos);
  make_pending();
  ASSERT_TRUE(cs::confirm());
  EXPECT_EQ(last().substr(0, last().find(" loaded-by=")), "confsave: action=confirm result=ok" + with_id);
  ASSERT_TRUE(cs::save({"other"}));
  EXPECT_EQ(last().substr(0, last().find(" version=")), "confsave: action=save result=ok snapshot=other");
  cs::PruneOptions rule;
  rule.keep = 1;
  rule.pattern = "other*";
  ASSERT_TRUE(cs::save({"other2"}));
  const auto pruned = cs::prune(rule);
  ASSERT_TRUE(pruned) << shown(pruned.error());
  ASSERT_EQ(pruned->deleted.size(), 1U);
  EXPECT_EQ(last().substr(0, last().find(" version=")), "confsave: action=prune result=ok snapshot=other");
  const std::string file = root() + "/exported";
  ASSERT_TRUE(cs::export_to({{"weekly"}}, file));
  cs::ImportOptions as;
  as.name = "imported";
  ASSERT_TRUE(cs::import_from(file, as));
  EXPECT_EQ(last().substr(0, last().find(" version=")),
            "confsave: action=import result=ok snapshot=imported");
  // A value must not look like two fields, whatever is in it.
  cs::RestoreOptions elsewhere;
  elsewhere.target = root() + R"(/x\" result=ok user="anna)";
  ASSERT_EQ(mkdir(elsewhere.target.c_str(), 0700), 0);
  ASSERT_TRUE(cs::restore({"weekly"}, elsewhere));
  EXPECT_NE(log.back().second.find(R"(x\\\" result=ok user=\"anna")"), std::string::npos)
      << log.back().second;
  ASSERT_EQ(cs::remove({"other2"}).code, Code::ok);
  EXPECT_EQ(last().substr(0, last().find(" version=")),
            "confsave: action=delete result=ok snapshot=other2");
}

}  // namespace
