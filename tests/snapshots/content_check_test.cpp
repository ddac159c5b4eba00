#include "snapshots/content_check.h"

#include <gtest/gtest.h>

#include "snapshots/digest.h"
#include "snapshots/row_reader.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using Digests = ContentCheck::Digests;

const Digest kArchived{1, 2, 3};

class ContentChecking : public Gateway {
 protected:
  ContentChecking() { make_configuration(); }

  std::string config(const std::string& name) const { return config_dir() + name; }

  void in_config(const std::string& command) {
    ASSERT_EQ(shell("cd " + config_dir() + " && " + command), 0) << command;
  }

  /// Passes one regular file of an archive to the check, in pieces of two bytes.
  void archive_has(ContentCheck& check, const std::string& name, const std::string& content) {
    Entry entry;
    entry.path = name;
    entry.size = static_cast<ConfSave::int64>(content.size());
    check.begin(entry);
    for (std::size_t at = 0; at < content.size(); at += 2) check.add(content.substr(at, 2));
    check.end(kArchived);
  }

  static void archive_has_link(ContentCheck& check, const std::string& name, const std::string& target) {
    Entry entry;
    entry.path = name;
    entry.kind = Kind::hardlink;
    entry.target = target;
    check.begin(entry);
  }

  LiveMember live(const std::string& name) {
    LiveMember member;
    struct stat status = {};
    EXPECT_EQ(lstat(config(name).c_str(), &status), 0);
    member.member.path = config(name);
    member.member.size = status.st_size;
    member.stamp = stamp_of(status);
    return member;
  }

  /// "equal", "different", or "unknown".
  std::string knowledge(const ContentCheck& check, const std::string& name) {
    const LiveMember member = live(name);
    const Digest* digest = check.digest_of(member.member.path, member.stamp);
    if (digest == nullptr) return "unknown";
    return *digest == kArchived ? "equal" : "different";
  }

  /// What is known of the live file "f" with this content when the archive has "four" in it.
  std::string knowledge_of_four(Digests digests, const std::string& content) {
    write_file(config("f"), content);
    ContentCheck check(digests);
    check.enter(config_dir());
    archive_has(check, "f", "four");
    return knowledge(check, "f");
  }
};

TEST_F(ContentChecking, ComparesBytes) {
  EXPECT_EQ(knowledge_of_four(Digests::only_compared, "four"), "equal");
  EXPECT_EQ(knowledge_of_four(Digests::only_compared, "Four"), "different");
  EXPECT_EQ(knowledge_of_four(Digests::only_compared, "fouR"), "different");
  EXPECT_EQ(knowledge_of_four(Digests::only_compared, "four5"), "different");
  EXPECT_EQ(knowledge_of_four(Digests::only_compared, ""), "different");
}

TEST_F(ContentChecking, WithDigestsNothingIsKnownOfAFileThatDiffers) {
  EXPECT_EQ(knowledge_of_four(Digests::computed, "four"), "equal");
  EXPECT_EQ(knowledge_of_four(Digests::computed, "Four"), "unknown");
  EXPECT_EQ(knowledge_of_four(Digests::computed, "four5"), "unknown");
}

TEST_F(ContentChecking, AFileThatChangesIsUnknown) {
  write_file(config("f"), "four");
  write_file(config("g"), "four");
  ContentCheck check(Digests::only_compared);
  check.enter(config_dir());
  Entry entry;
  entry.path = "f";
  entry.size = 4;
  check.begin(entry);
  in_config("touch -d @5 f");
  check.add("four");
  check.end(kArchived);
  EXPECT_EQ(knowledge(check, "f"), "unknown");
  archive_has(check, "g", "four");
  EXPECT_EQ(knowledge(check, "g"), "equal");
  EXPECT_FALSE(check.needs_digests(live("g").member, live("g")));
  in_config("touch -d @5 g");
  EXPECT_EQ(knowledge(check, "g"), "unknown");
  EXPECT_TRUE(check.needs_digests(live("g").member, live("g")));
}

TEST_F(ContentChecking, OnlyRegularFilesBelowTheDirectoryAreRead) {
  in_config("mkdir d && printf four > d/f && ln -s d e && ln -s d/f link && mkfifo fifo");
  ContentCheck check(Digests::only_compared);
  check.enter(config_dir());
  for (const char* name : {"d/f", "e/f", "link", "fifo", "none"}) archive_has(check, name, "four");
  EXPECT_EQ(knowledge(check, "d/f"), "equal");
  EXPECT_EQ(knowledge(check, "e/f"), "unknown");
  EXPECT_EQ(knowledge(check, "link"), "unknown");
  EXPECT_EQ(knowledge(check, "fifo"), "unknown");
}

TEST_F(ContentChecking, OfTheSamePathTheLastEntryCounts) {
  write_file(config("f"), "four");
  ContentCheck check(Digests::only_compared);
  check.enter(config_dir());
  archive_has(check, "f", "four");
  archive_has(check, "f", "five");
  EXPECT_EQ(knowledge(check, "f"), "different");
  archive_has(check, "f", "four");
  EXPECT_EQ(knowledge(check, "f"), "equal");
}

TEST_F(ContentChecking, ALinkIsKnownAsItsFileIsIfBothAreOneFile) {
  in_config("printf four > f && ln f link && printf four > copy");
  ContentCheck check(Digests::only_compared);
  check.enter(config_dir());
  archive_has(check, "f", "four");
  archive_has_link(check, "link", "f");
  archive_has_link(check, "copy", "f");
  EXPECT_EQ(knowledge(check, "link"), "equal");
  EXPECT_EQ(knowledge(check, "copy"), "unknown");
  EXPECT_TRUE(check.needs_digests(live("copy").member, live("copy")));
  // Another file of the archive, and one file on the disk.
  archive_has(check, "link", "five");
  EXPECT_EQ(knowledge(check, "f"), "equal");
  EXPECT_EQ(knowledge(check, "link"), "different");
}

TEST_F(ContentChecking, ADirectoryThatIsNotThereHasNoFiles) {
  ContentCheck check(Digests::only_compared);
  check.enter(config("none") + "/");
  archive_has(check, "f", "four");
  in_config("mkdir none && printf four > none/f");
  EXPECT_EQ(knowledge(check, "none/f"), "unknown");
}

/// What the live files are compared by decides nothing: links and separate files, on either side.
TEST_F(ContentChecking, ComparisonsWithLinks) {
  const auto content_differs = [this](const std::string& saved, const std::string& now) {
    in_config("rm -f gw8 gw9 && " + saved);
    EXPECT_TRUE(ConfSave::save("links", ConfSave::conf_full, 0, true));
    in_config("rm -f gw8 gw9 && " + now);
    const auto differences = compare({"links"}, Live());
    EXPECT_TRUE(differences);
    Texts paths;
    for (const Difference& difference : *differences) {
      if (difference.content) paths.push_back(difference.path);
    }
    return paths;
  };
  const std::string links = "printf four > gw8 && ln gw8 gw9";
  const std::string copies = "printf four > gw8 && printf four > gw9";
  const std::string different = "printf four > gw8 && printf five > gw9";
  const std::string others = "printf five > gw8 && ln gw8 gw9";
  EXPECT_EQ(content_differs(links, links), Texts());
  EXPECT_EQ(content_differs(links, copies), Texts());
  EXPECT_EQ(content_differs(copies, links), Texts());
  EXPECT_EQ(content_differs(links, different), Texts{config("gw9")});
  EXPECT_EQ(content_differs(different, links), Texts{config("gw9")});
  EXPECT_EQ(content_differs(different, others), Texts{config("gw8")});
  EXPECT_EQ(content_differs(links, others), (Texts{config("gw8"), config("gw9")}));
}

/// The tree has the digest that the check gave, and reads the files that the check does not know.
TEST_F(ContentChecking, TheTreeReadsOnlyWhatIsUnknown) {
  write_file(config("gw8"), "four");
  write_file(config("gw9"), "four");
  ContentCheck check(Digests::computed);
  check.enter(config_dir());
  archive_has(check, "gw8", "four");
  const auto tree = read_tree(ConfSave::conf_full, {}, nullptr, &check);
  ASSERT_TRUE(tree);
  Sha256 sha256;
  sha256.add("four", 4);
  EXPECT_EQ(tree->members.at(config("gw8")).member.sha256, kArchived);
  EXPECT_EQ(tree->members.at(config("gw9")).member.sha256, sha256.finish());
  EXPECT_EQ(tree->moment, check.moment());
}

}  // namespace
