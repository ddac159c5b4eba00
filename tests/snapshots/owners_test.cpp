// Whose files a snapshot restores: what the contract's tar does is what counts.

#include "snapshots/owners.h"

#include <sys/stat.h>

#include "snapshots/saving.h"
#include "snapshots/tar_writer.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

class OwnersTest : public Saving {
 protected:
  /// Stores a snapshot whose configuration is `archive`.
  void store(const std::string& archive) {
    write_file(root() + "/a.tar", archive);
    ASSERT_EQ(shell("gzip -nc " + root() + "/a.tar > " + root() + "/a.tgz"), 0);
    const std::string packed = read_file(root() + "/a.tgz");
    shell("rm -f " + database());
    put({"weekly", kCurrent, 1, "1000", "NULL", hex(Bytes(packed.begin(), packed.end())),
         hex(make_archive(etc_dir(), "."))});
  }

  /// A tar archive of gw1.conf.
  std::string packed_with(const std::string& options) const {
    EXPECT_EQ(shell("cd " + config_dir() + " && tar cf " + root() + "/b.tar " + options + " gw1.conf"), 0);
    return read_file(root() + "/b.tar");
  }

  Member member(const std::string& path) const {
    const auto found = members({"weekly"});
    EXPECT_TRUE(found) << (found ? "" : found.error().text);
    if (!found) return {};
    for (const Member& one : *found) {
      if (one.path == path) return one;
    }
    ADD_FAILURE() << "there is no " << path;
    return {};
  }

  static std::string owner(const Member& member) {
    return std::to_string(member.uid) + ":" + std::to_string(member.gid);
  }

  static std::string owner(const std::string& file) {
    struct stat status = {};
    EXPECT_EQ(stat(file.c_str(), &status), 0);
    return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
  }
};

TEST_F(OwnersTest, ANameOfThisMachineCountsMoreThanTheNumber) {
  const struct {
    const char* options;
    const char* owner;
  } cases[] = {
      {"--format=gnu --owner=nobody:12345 --group=daemon:54321", "65534:1"},
      {"--format=gnu --owner=nosuch:12345 --group=nosuch:54321", "12345:54321"},
      {"--format=gnu --owner=nobody:3000000 --group=daemon:3000000", "65534:1"},
      {"--format=gnu --numeric-owner --owner=12345 --group=54321", "12345:54321"},
      {"--format=ustar --owner=nobody:12345 --group=daemon:54321", "65534:1"},
      {"--format=v7 --owner=nobody:12345 --group=daemon:54321", "12345:54321"},
      {"--format=pax --owner=nobody:12345 --group=daemon:54321", "65534:1"},
      // These have records of the numbers.
      {"--format=pax --owner=nobody:3000000 --group=daemon:12345", "3000000:1"},
      {"--format=pax --owner=nobody:12345 --group=daemon:3000000", "65534:3000000"},
  };
  for (const auto& c : cases) {
    store(packed_with(c.options));
    EXPECT_EQ(owner(member(config("gw1.conf"))), c.owner) << c.options;
    ConfSave::load("weekly", nullptr, 0, true);
    EXPECT_EQ(owner(config("gw1.conf")), c.owner) << c.options;
    const auto changed = compare({"weekly"}, Live());
    ASSERT_TRUE(changed);
    for (const Difference& difference : *changed) EXPECT_EQ(difference.change, Change::added);
  }
}

TEST_F(OwnersTest, ALinkIsItsFile) {
  TarMember file{"gw1.conf", '0', "content", "", 0640};
  TarMember link{"gw2.conf", '1', "", "gw1.conf", 0600};
  file.user = "nobody";
  link.user = "daemon";
  link.time = 5;
  store(tar_member(file) + tar_member(link) + tar_end());
  const Member found = member(config("gw2.conf"));
  EXPECT_EQ(found.kind, Kind::hardlink);
  EXPECT_EQ(found.mode, 0640U);
  EXPECT_EQ(owner(found), "65534:0");
  EXPECT_EQ(found.time, 1488377100);
  ConfSave::load("weekly", nullptr, 0, true);
  struct stat status = {};
  ASSERT_EQ(stat(config("gw2.conf").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(status.st_uid, 65534U);
  EXPECT_EQ(status.st_mtim.tv_sec, 1488377100);
  EXPECT_EQ(status.st_nlink, 2U);
}

TEST_F(OwnersTest, AManifestIsComparedWithTheNumbers) {
  // The user that a name belongs to has got another number since the save.
  saved("weekly");
  std::string names;
  const auto all = members({"weekly"});
  ASSERT_TRUE(all);
  for (const Member& member : *all) {
    if (member.path.find(config_dir()) == 0) names += member.path.substr(config_dir().size()) + '\n';
  }
  write_file(root() + "/names", names);
  const std::string archive = root() + "/renumbered.tgz";
  ASSERT_EQ(shell("cd " + config_dir() + " && tar czf " + archive +
                  " --owner=nobody:1234 --no-recursion -T " + root() + "/names"),
            0);
  const std::string packed = read_file(archive);
  Database(database()).run("update Config set keybase = " + hex(Bytes(packed.begin(), packed.end())));
  const Database notes(notes_file());
  notes.run("update manifest set keybase = " + std::to_string(packed.size()));
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::damaged);
  notes.run("update member set uid = 1234 where path like '" + config_dir() + "%'");
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::intact);
  EXPECT_EQ(owner(member(config("gw1.conf"))), "65534:0");
}

TEST_F(OwnersTest, ManyNamesAreLookedUp) {
  Owners owners;
  for (int round = 0; round < 2; ++round) {
    for (std::uint32_t i = 0; i < 1000; ++i) {
      EXPECT_EQ(*owners.user("nosuch" + std::to_string(i), i), i);
      EXPECT_EQ(*owners.user("nobody", i), 65534U);
      EXPECT_EQ(*owners.group("daemon", i), 1U);
      EXPECT_EQ(*owners.group("nosuch", i), i);
    }
  }
  EXPECT_EQ(*owners.user("", 7), 7U);
  EXPECT_EQ(*owners.user(std::string(100000, 'x'), 7), 7U);
}

}  // namespace
