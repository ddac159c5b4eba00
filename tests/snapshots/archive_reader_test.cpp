#include "snapshots/archive_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <map>

#include "support/gateway.h"
#include "tar_writer.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

std::string shown(const Entry& entry) {
  static const std::map<Kind, std::string> kinds = {{Kind::file, "file"},
                                                    {Kind::directory, "directory"},
                                                    {Kind::symlink, "symlink"},
                                                    {Kind::hardlink, "hardlink"}};
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", entry.mode);
  std::string text = kinds.at(entry.kind) + " " + mode + " " + entry.path;
  if (!entry.target.empty()) text += " -> " + entry.target;
  return text;
}

class ArchiveReader : public Gateway {
 protected:
  /// Reads `packed`; the entries and their content are in `seen`, the whole error is the result.
  std::string read(const std::string& packed, const Limits& limits = {}) {
    seen.clear();
    const EntryHandler handler = {[this](const Entry& entry) {
                                    seen.push_back(shown(entry));
                                    return Error{};
                                  },
                                  [this](std::string_view piece) {
                                    seen.back().append(" [").append(piece).append("]");
                                    return Error{};
                                  },
                                  [] { return Error{}; }};
    MemorySource source(packed);
    last = read_archive(source, limits, handler);
    return last.path.empty() ? last.text : last.path + ": " + last.text;
  }

  std::string gzip(const std::string& tar) {
    write_file(root() + "/plain", tar);
    EXPECT_EQ(shell("cd " + root() + " && gzip -c plain > packed"), 0);
    return read_file(root() + "/packed");
  }

  std::string read_members(const std::vector<TarMember>& members) {
    std::string tar;
    for (const TarMember& member : members) tar += tar_member(member);
    return read(gzip(tar + tar_end()));
  }

  Texts seen;
  Error last;
};

TEST_F(ArchiveReader, ReadsWhatTarPacked) {
  EXPECT_EQ(
      shell("cd " + root() +
            " && mkdir -p tree/deep/er && cd tree && echo one > a && chmod 640 a && ln a b && ln -s ../x c "
            "&& : > deep/empty && echo two > deep/er/d && tar czf ../t.gz --sort=name ."),
      0);
  EXPECT_EQ(read(read_file(root() + "/t.gz")), "");
  EXPECT_EQ(seen, (Texts{"file 0640 a [one\n]", "hardlink 0640 b -> a", "symlink 0777 c -> ../x",
                         "directory 0755 deep", "file 0644 deep/empty", "directory 0755 deep/er",
                         "file 0644 deep/er/d [two\n]"}));
}

TEST_F(ArchiveReader, ASparseFileHasItsHoles) {
  EXPECT_EQ(shell("cd " + root() + " && truncate -s 100000 s && printf end >> s && tar cSzf t.gz s"), 0);
  EXPECT_EQ(read(read_file(root() + "/t.gz")), "");
  std::string content = seen.at(0);
  while (content.find("] [") != std::string::npos) content.replace(content.find("] ["), 3, "");
  EXPECT_TRUE(content == "file 0644 s [" + std::string(100000, '\0') + "end]");
}

/// Another thread may read on while the objects of the host are destroyed, or one of them reads.
TEST_F(ArchiveReader, ASparseFileHasItsHolesWhenTheHostExits) {
  ASSERT_EQ(shell("cd " + root() + " && truncate -s 100000 s && printf end >> s && tar cSzf t.gz s"), 0);
  static std::string packed;
  static const auto has_holes = [] {
    std::string content;
    const EntryHandler handler = {[](const Entry&) { return Error{}; },
                                  [&content](std::string_view piece) {
                                    content += piece;
                                    return Error{};
                                  },
                                  [] { return Error{}; }};
    MemorySource source(packed);
    return read_archive(source, {}, handler).code == Code::ok &&
           content == std::string(100000, '\0') + "end";
  };
  packed = read_file(root() + "/t.gz");
  const auto read_at_exit = [] {
    std::atexit([] { _exit(has_holes() ? 0 : 2); });
    std::exit(has_holes() ? 0 : 1);
  };
  EXPECT_EXIT(read_at_exit(), testing::ExitedWithCode(0), "");
}

TEST_F(ArchiveReader, ASparseFileIsNoLongerThanItsHeaderSays) {
  ASSERT_EQ(
      shell("cd " + root() + " && truncate -s 100000 s && printf end >> s && tar cSf t --format=posix s"),
      0);
  std::string tar = read_file(root() + "/t");
  const std::size_t size = tar.find("realsize=100003");
  ASSERT_NE(size, std::string::npos);
  EXPECT_EQ(read(gzip(tar)), "");
  EXPECT_EQ(read(gzip(tar.replace(size, 15, "realsize=000003"))),
            "s: the content is longer than the header says");
  EXPECT_EQ(last.code, Code::damaged);
}

TEST_F(ArchiveReader, ARecordOfAnotherSizeIsRefused) {
  for (const char* record : {"SCHILY.realsize:=11", "SCHILY.realsize:=100", "SCHILY.realsize:=5"}) {
    ASSERT_EQ(
        shell("cd " + root() +
              " && printf 'hello world' > f && tar czf t.gz --format=pax --pax-option=" + record + " f"),
        0);
    const std::string answer = read(read_file(root() + "/t.gz"));
    const std::string size = record + std::string("SCHILY.realsize:=").size();
    const std::string how = size == "5" ? "longer" : "shorter";
    EXPECT_EQ(answer, size == "11" ? "" : "f: the content is " + how + " than the header says") << record;
  }
}

TEST_F(ArchiveReader, AFileOfHolesOnlyIsWhole) {
  for (const char* format : {"gnu", "posix"}) {
    ASSERT_EQ(shell("cd " + root() + " && truncate -s 5000 s && tar cSzf t.gz --format=" + format + " s"),
              0);
    EXPECT_EQ(read(read_file(root() + "/t.gz")), "") << format;
    EXPECT_EQ(seen.back(), "file 0644 s [" + std::string(5000, '\0') + "]") << format;
  }
}

TEST_F(ArchiveReader, LongAndOddNamesAreBytes) {
  const std::string name = std::string(200, 'n') + "\xff\xfe\t" + std::string(20, 'o');
  for (const char* format : {"gnu", "posix"}) {
    write_file(root() + "/" + name, "x");
    EXPECT_EQ(shell("cd " + root() + " && tar czf t.gz --format=" + format + " nnn*"), 0);
    EXPECT_EQ(read(read_file(root() + "/t.gz")), "") << format;
    EXPECT_EQ(seen, Texts{"file 0644 " + name + " [x]"}) << format;
  }
}

TEST_F(ArchiveReader, AnAccessListDoesNotChangeTheMode) {
  const std::string list = "SCHILY.acl.access=user::rw-,user:1000:rwx,group::rwx,mask::r--,other::---\n";
  EXPECT_EQ(read_members(
                {{"header", 'x', std::to_string(list.size() + 3) + " " + list}, {"f", '0', "x", "", 0640}}),
            "");
  EXPECT_EQ(seen, Texts{"file 0640 f [x]"});
}

TEST_F(ArchiveReader, AnArchiveOfNothingHasNoMembers) {
  EXPECT_EQ(read(gzip(std::string(10240, '\0'))), "");
  EXPECT_EQ(seen, Texts());
}

TEST_F(ArchiveReader, UnsafeMembersAreRefused) {
  const TarMember file = {"a", '0', "x"};
  const struct {
    std::vector<TarMember> members;
    std::string error;
  } cases[] = {
      {{{"/etc/passwd"}}, "/etc/passwd: the name of a member is absolute"},
      {{{"a/../../b"}}, "a/../../b: the name of a member goes through \"..\""},
      {{{".."}}, "..: the name of a member goes through \"..\""},
      {{{"a\nb"}}, "a\\x0ab: the name of a member has a line feed"},
      {{{"dev", '3'}}, "dev: a member is a device, a FIFO or a socket"},
      {{{"dev", '4'}}, "dev: a member is a device, a FIFO or a socket"},
      {{{"pipe", '6'}}, "pipe: a member is a device, a FIFO or a socket"},
      {{{"s", '2', "", "/tmp"}, {"s/a"}}, "s/a: a member is below a symbolic link of the same archive"},
      {{{"s", '2', "", "/tmp"}, {"./s//a"}}, "s/a: a member is below a symbolic link of the same archive"},
      {{file, {"a/b"}}, "a/b: a member is below a file of the same archive"},
      {{{"d/f"}, {"d", '2', "", "/tmp"}}, "d: a member takes the place of a directory of the same archive"},
      {{{"s", '2', "", "/tmp"}, {"s/", '5'}},
       "s: a directory takes the place of a symbolic link of the same archive"},
      {{{"h", '1', "", "/etc/passwd"}}, "/etc/passwd: the name of a member is absolute"},
      {{{"h", '1', "", "../x"}}, "../x: the name of a member goes through \"..\""},
      {{{"h", '1', "", "later"}, {"later"}}, "h: a hard link points to no earlier file of the archive"},
      {{{"s", '2', "", "/etc/passwd"}, {"h", '1', "", "s"}},
       "h: a hard link points to no earlier file of the archive"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(read_members(c.members), c.error);
    EXPECT_EQ(last.code, Code::unsafe) << c.error;
  }
}

TEST_F(ArchiveReader, LaterMembersMayReplaceFilesAndLinks) {
  EXPECT_EQ(read_members({{"a", '2', "", "x"}, {"a", '0', "1"}, {"a", '0', "2"}, {"h", '1', "", "a"}}), "");
  EXPECT_EQ(seen,
            (Texts{"symlink 0644 a -> x", "file 0644 a [1]", "file 0644 a [2]", "hardlink 0644 h -> a"}));
}

TEST_F(ArchiveReader, LimitsAreKept) {
  Limits limits;
  limits.members = 2;
  const std::string three = gzip(tar_member({"a"}) + tar_member({"b"}) + tar_member({"c"}) + tar_end());
  EXPECT_EQ(read(three, limits), "the archive has more than 2 members");
  limits.members = 3;
  EXPECT_EQ(read(three, limits), "");
  const std::string deep = gzip(tar_member({"1/2/3/4"}) + tar_end());
  limits.depth = 4;
  EXPECT_EQ(read(deep, limits), "");
  limits.depth = 3;
  EXPECT_EQ(read(deep, limits), "1/2/3/4: a member is deeper than 3 directories");
  limits = {};
  limits.paths = 1 + 3 + 5 + 7;
  EXPECT_EQ(read(deep, limits), "");
  limits.paths -= 1;
  EXPECT_EQ(read(deep, limits), "1/2/3/4: the names of the members are too long in all");
  limits.path = 6;
  EXPECT_EQ(read(deep, limits), "1/2/3/4...: the name of a member is longer than 6 bytes");
  limits.unpacked = 100 << 10;
  EXPECT_EQ(shell("cd " + root() + " && truncate -s 200000 s && tar cSzf t.gz s"), 0);
  EXPECT_EQ(read(read_file(root() + "/t.gz"), limits), "s: the archive unpacks to more than 102400 bytes");
  EXPECT_EQ(last.code, Code::unsafe);
}

TEST_F(ArchiveReader, DamageIsNoticed) {
  const std::string tar = tar_member({"a", '0', std::string(3000, 'x')}) + tar_end();
  for (std::size_t size = 512; size < 3072; size += 512) {
    EXPECT_NE(read(gzip(tar.substr(0, size))), "") << size;
    EXPECT_EQ(last.code, Code::damaged) << size;
  }
  std::string wrong = tar;
  wrong[5] = 'y';
  EXPECT_EQ(read(gzip(wrong)), "the tar archive is damaged: Unrecognized archive format");
  EXPECT_EQ(read(gzip(std::string(2048, 'x'))), "the tar archive is damaged: Unrecognized archive format");
}

TEST_F(ArchiveReader, DamageBehindTheEndOfTheTarIsNoticed) {
  // So much that the reader of the tar does not get there by itself.
  const std::string whole = gzip(tar_member({"a"}) + tar_end() + std::string(3 << 20, '\0'));
  EXPECT_EQ(read(whole), "");
  EXPECT_EQ(read(whole.substr(0, whole.size() - 8)), "the archive ends in the middle");
  EXPECT_EQ(seen, Texts{"file 0644 a"});
}

TEST_F(ArchiveReader, TheHandlersErrorEndsIt) {
  const std::string packed = gzip(tar_member({"a", '0', "x"}) + tar_end());
  MemorySource source(packed);
  const auto stop = [] { return Error{Code::failed, 5, "p", "t"}; };
  const auto go_on = [](auto) { return Error{}; };
  EXPECT_EQ(
      read_archive(source, {}, {[&](const Entry&) { return stop(); }, go_on, [] { return Error{}; }}).text,
      "t");
}

}  // namespace
