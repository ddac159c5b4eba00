#include "snapshots/early_digests.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "snapshots/content_check.h"
#include "snapshots/digest.h"
#include "snapshots/saving.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

volatile std::sig_atomic_t handled = 0;

void count(int) { ++handled; }

class Early : public Saving {
 protected:
  Stamp stamp(const std::string& name) const {
    struct stat status = {};
    EXPECT_EQ(stat(config(name).c_str(), &status), 0);
    return stamp_of(status);
  }

  static Digest digest(const std::string& content) {
    Sha256 sha256;
    sha256.add(content.data(), content.size());
    return sha256.finish();
  }

  /// "known" if it has the digest of the file, "wrong" if it has another one.
  std::string knowledge(const EarlyDigests& early, const std::string& name) const {
    const LiveMember* found = early.find(config(name), stamp(name));
    if (found == nullptr) return "unknown";
    const std::string content = read_file(config(name));
    const bool is_right = found->member.sha256 == digest(content) && found->checksum == crc32(0, content);
    return is_right ? "known" : "wrong";
  }

  static void set_stack_size(std::size_t bytes) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, bytes);
    EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
    pthread_attr_destroy(&attributes);
  }
};

TEST_F(Early, OnlyFilesThatDidNotChangeAreKnown) {
  let_the_files_grow_old();
  write_file(config("gw2.conf"), "young");
  EarlyDigests early(ConfSave::conf_full);
  EXPECT_EQ(knowledge(early, "gw1.conf"), "unknown") << "the thread may still run";
  early.wait();
  EXPECT_EQ(knowledge(early, "gw1.conf"), "known");
  EXPECT_EQ(knowledge(early, "gw2.conf"), "unknown");
  shell("touch " + config("gw1.conf"));
  EXPECT_EQ(knowledge(early, "gw1.conf"), "unknown");
  EXPECT_EQ(knowledge(early, "user/gateway.conf"), "known");
  early.forget();
  EXPECT_EQ(knowledge(early, "user/gateway.conf"), "unknown");
}

TEST_F(Early, TheThreadDoesNotAskThePlatform) {
  EarlyDigests early(ConfSave::conf_full);
  early.wait();
  EXPECT_FALSE(host.askers.empty());
  for (const std::thread::id& asker : host.askers) EXPECT_EQ(asker, std::this_thread::get_id());
}

/// The content is compared all the same; only its digest is not computed.
TEST_F(Early, AFileOfAnArchiveGetsTheDigestOfTheLiveOne) {
  const struct {
    const char* content;
    bool is_known;
    bool is_equal;
  } cases[] = {{"four", true, true}, {"Four", true, false}, {"longer", true, false}, {"four", false, true}};
  write_file(config("gw8"), "four");
  let_the_files_grow_old();
  for (const auto& c : cases) {
    EarlyDigests early(ConfSave::conf_full);
    if (c.is_known) early.wait();
    ContentCheck check(ContentCheck::Digests::computed, &early);
    check.enter(config_dir());
    Entry entry;
    entry.path = "gw8";
    const std::string content = c.content;
    entry.size = static_cast<ConfSave::int64>(content.size());
    check.begin(entry);
    EXPECT_EQ(check.needs_digest(), !c.is_known) << content;
    check.add(content);
    EXPECT_EQ(check.end(digest(content)) == digest("four"), c.is_equal) << content;
    EXPECT_EQ(check.digest_of(config("gw8"), stamp("gw8")) != nullptr, c.is_equal) << content;
    entry.path = "gone";
    check.begin(entry);
    EXPECT_TRUE(check.needs_digest());
  }
}

/// A file may change after its digest was computed and before tar packs it.
TEST_F(Early, TheManifestHasWhatWasPacked) {
  let_the_files_grow_old();
  host.on_command = [this](const std::string& command) -> std::optional<int> {
    if (command.find("cd " + config_dir()) != 0) return {};
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    shell("echo changed > " + config("gw1.conf"));
    return shell(command);
  };
  saved("weekly");
  host.on_command = {};
  const auto verdict = verify({"weekly"});
  ASSERT_TRUE(verdict);
  EXPECT_EQ(verdict->state, Verdict::State::intact);
  EXPECT_EQ(verdict->problems, Texts());
  EXPECT_TRUE(is_live("weekly"));
}

/// A store into a mapped page leaves the times of the file: here on a tmpfs, elsewhere until the page is
/// synced.
TEST_F(Early, AFileThatIsWrittenThroughAMappingIsPackedAgain) {
  ASSERT_EQ(mount("tmpfs", config("hub").c_str(), "tmpfs", 0, nullptr), 0);
  write_file(config("hub/key"), "one");
  const int file = open(config("hub/key").c_str(), O_RDWR | O_CLOEXEC);
  void* mapping = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ASSERT_NE(mapping, MAP_FAILED);
  char* const byte = static_cast<char*>(mapping);
  *byte = 'a';
  let_the_files_grow_old();
  const Stamp before = stamp("hub/key");
  int packings_begun = 0;
  host.on_command = [&](const std::string& command) -> std::optional<int> {
    if (command.find("cd " + config_dir()) == 0 && ++packings_begun == 1) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      *byte = 'b';
      EXPECT_TRUE(is_same(stamp("hub/key"), before));
    }
    return shell(command);
  };
  saved("weekly");
  EXPECT_EQ(packings_begun, 2);
  const auto verdict = verify({"weekly"});
  ASSERT_TRUE(verdict);
  EXPECT_EQ(verdict->state, Verdict::State::intact);
  EXPECT_EQ(verdict->problems, Texts());
  munmap(mapping, 1);
  close(file);
  EXPECT_EQ(umount(config("hub").c_str()), 0);
}

TEST_F(Early, WithoutAThreadASaveIsTheSame) {
  constexpr std::size_t kMoreThanThereIs = std::size_t{1} << 46U;
  constexpr std::size_t kUsual = std::size_t{8} << 20U;
  let_the_files_grow_old();
  set_stack_size(kMoreThanThereIs);
  EarlyDigests early(ConfSave::conf_full);
  early.wait();
  saved("weekly");
  set_stack_size(kUsual);
  EXPECT_EQ(knowledge(early, "gw1.conf"), "unknown");
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::intact);
}

TEST_F(Early, TheThreadHandlesNoSignals) {
  shell("head -c 100000000 /dev/zero > " + config("gw1.conf"));
  let_the_files_grow_old();
  sigset_t usual;
  sigset_t all;
  sigfillset(&all);
  handled = 0;
  const auto before = std::signal(SIGUSR1, count);
  EarlyDigests early(ConfSave::conf_full);
  pthread_sigmask(SIG_SETMASK, &all, &usual);
  EXPECT_EQ(sigismember(&usual, SIGUSR1), 0) << "this thread keeps its mask";
  kill(getpid(), SIGUSR1);
  early.wait();
  EXPECT_EQ(handled, 0);
  pthread_sigmask(SIG_SETMASK, &usual, nullptr);
  EXPECT_EQ(handled, 1);
  std::signal(SIGUSR1, before);
  EXPECT_EQ(knowledge(early, "gw1.conf"), "known");
}

}  // namespace
