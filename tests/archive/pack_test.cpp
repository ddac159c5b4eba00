#include "archive/pack.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <regex>
#include <stdexcept>

#include "support/gateway.h"

namespace {

using namespace ConfSave;
using test::LogRecord;
using test::LogRecords;
using Texts = std::vector<std::string>;

TEST(CommandLine, Pack) {
  EXPECT_EQ(
      pack_command("/tmp/abc123", "/mnt/main/etc/", " failover.ini failover.ini.crg failoverd-config.crg"),
      "cd /mnt/main/etc/ && tar czf /tmp/abc123 --ignore-failed-read  failover.ini failover.ini.crg "
      "failoverd-config.crg 2>/dev/null");
}

TEST(CommandLine, Unpack) {
  EXPECT_EQ(unpack_command("/tmp/abc123", "/cfg//x"),
            "tar xzf /tmp/abc123 --exclude corlu.serv -C /cfg//x 2>/dev/null");
}

TEST(CommandLine, Move) {
  EXPECT_EQ(move_command("/cfg//x", "/cfg/"), "cp -alf /cfg//x/* /cfg//. 2>/dev/null");
}

TEST(CommandLine, Remove) { EXPECT_EQ(remove_command("/cfg//x"), "rm -rf /cfg//x 2>/dev/null"); }

LogRecord pack_says(const std::string& text) {
  return {1,      "void ConfSave::pack(const string&, const string&, const string&)",
          "pack", "source/archive",
          text,   {4}};
}

LogRecord unpack_says(const std::string& text, const std::vector<unsigned>& widths = {4}) {
  return {1,     "void ConfSave::unpack(const string&, const string&)", "unpack", "source/archive", text,
          widths};
}

void expect_external_failure(const std::function<void()>& call) {
  const auto error = test::thrown_by<XExternalFailure>(call);
  EXPECT_EQ(error.Status(), 36);
  EXPECT_STREQ(error.ErrorMessage(), "");
}

class Packing : public test::Gateway {
 protected:
  std::string archive() const { return root() + "/archive"; }
  /// Ends in "/".
  std::string dest() const { return root() + "/dest/"; }
  Packing() {
    std::filesystem::create_directory(dest());
    test::write_file(config_dir() + "a", "content of a");
    test::write_file(config_dir() + "b", "content of b");
  }

  void pack_both() {
    pack(archive(), config_dir(), " a b");
    host.commands.clear();
    host.records.clear();
  }

  /// The commands with the scratch directory's name replaced.
  Texts commands() const {
    Texts texts;
    for (const std::string& command : host.commands) {
      texts.push_back(std::regex_replace(command, std::regex("dest//[A-Za-z0-9]{6}"), "dest//<scratch>"));
    }
    return texts;
  }

  std::string tar() const {
    return "tar xzf " + archive() + " --exclude corlu.serv -C " + dest() + "/<scratch> 2>/dev/null";
  }
  std::string cp() const { return "cp -alf " + dest() + "/<scratch>/* " + dest() + "/. 2>/dev/null"; }
  std::string rm() const { return "rm -rf " + dest() + "/<scratch> 2>/dev/null"; }
};

using Pack = Packing;

TEST_F(Pack, TheFilesAreInTheArchive) {
  pack(archive(), config_dir(), " a b");
  EXPECT_EQ(host.commands, Texts{"cd " + config_dir() + " && tar czf " + archive() +
                                 " --ignore-failed-read  a b 2>/dev/null"});
  const std::string bytes = test::read_file(archive());
  EXPECT_EQ(test::members({bytes.begin(), bytes.end()}), (Texts{"a", "b"}));
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(Pack, MissingFilesAreNoFailure) {
  pack(archive(), config_dir(), " a missing none*");
  const std::string bytes = test::read_file(archive());
  EXPECT_EQ(test::members({bytes.begin(), bytes.end()}), Texts{"a"});
}

TEST_F(Pack, AnEmptyArgumentIsAFailureAndRunsNothing) {
  expect_external_failure([this] { pack("", config_dir(), " a"); });
  expect_external_failure([this] { pack(archive(), "", " a"); });
  expect_external_failure([this] { pack(archive(), config_dir(), ""); });
  EXPECT_EQ(host.commands, Texts());
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(Pack, AFailedTarIsLoggedWithItsResult) {
  host.on_command = test::fail_commands("cd ", 77);
  expect_external_failure([this] { pack(archive(), config_dir(), " a"); });
  EXPECT_EQ(host.records, LogRecords{pack_says("failed to create tar archive with error code: 77")});
  host.records.clear();
  host.log_level = 0;
  expect_external_failure([this] { pack(archive(), config_dir(), " a"); });
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(Pack, AMissingDirectoryIsAFailure) {
  expect_external_failure([this] { pack(archive(), root() + "/missing", " a"); });
  EXPECT_EQ(host.records, LogRecords{pack_says("failed to create tar archive with error code: 2")});
}

using Unpack = Packing;

TEST_F(Unpack, FilesAreLinkedIntoTheDestination) {
  pack_both();
  test::write_file(dest() + "a", "old");
  test::write_file(dest() + "other", "stays");
  unpack(archive(), dest());
  EXPECT_EQ(commands(), (Texts{tar(), cp(), rm()}));
  EXPECT_EQ(test::tree(dest()), (std::map<std::string, std::string>{
                                    {"a", "content of a"}, {"b", "content of b"}, {"other", "stays"}}));
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(Unpack, AnEmptyArgumentIsAFailureAndRunsNothing) {
  expect_external_failure([this] { unpack("", dest()); });
  expect_external_failure([this] { unpack(archive(), ""); });
  EXPECT_EQ(host.commands, Texts());
  EXPECT_EQ(host.records, LogRecords());
  EXPECT_EQ(test::names_in(dest()), Texts());
}

TEST_F(Unpack, WithoutAScratchDirectoryNothingRuns) {
  const std::string missing = root() + "/missing";
  const auto error = test::thrown_by<XTOOStatus>([&] { unpack(archive(), missing); });
  EXPECT_EQ(error.Status(), 3);
  EXPECT_STREQ(error.ErrorMessage(), "No such file or directory");
  // The name is the one that was tried last.
  ASSERT_EQ(host.records.size(), 1U);
  LogRecord record = host.records[0];
  record.text =
      std::regex_replace(record.text, std::regex("^" + missing + "/[A-Za-z0-9]{6}:"), "<scratch>:");
  EXPECT_EQ(record,
            unpack_says("<scratch>: failed to create temporary directory: No such file or directory", {}));
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(Unpack, TheScratchDirectoryIsOursAloneUnderAnyUmask) {
  pack_both();
  mode_t mode = 0;
  host.on_command = [&](const std::string&) -> std::optional<int> {
    const Texts names = test::names_in(dest());
    struct stat status = {};
    if (mode == 0 && stat((dest() + names.at(0)).c_str(), &status) == 0) mode = status.st_mode & 07777U;
    return std::nullopt;
  };
  const mode_t before = umask(0777);
  unpack(archive(), dest());
  umask(before);
  EXPECT_EQ(mode, 0700U);
}

TEST_F(Unpack, AFailedTarSkipsTheCopyAndIsLogged) {
  pack_both();
  host.on_command = test::fail_commands("tar xzf", 5);
  expect_external_failure([this] { unpack(archive(), dest()); });
  EXPECT_EQ(commands(), (Texts{tar(), rm()}));
  EXPECT_EQ(host.records, LogRecords{unpack_says("failed to extract files with error code: 5")});
  EXPECT_EQ(test::names_in(dest()), Texts());
}

TEST_F(Unpack, WhatIsNoArchiveFailsInTar) {
  test::write_file(archive(), "no archive");
  expect_external_failure([this] { unpack(archive(), dest()); });
  EXPECT_EQ(host.records, LogRecords{unpack_says("failed to extract files with error code: 2")});
}

TEST_F(Unpack, AFailedCopyIsLogged) {
  pack_both();
  host.on_command = test::fail_commands("cp ", 6);
  expect_external_failure([this] { unpack(archive(), dest()); });
  EXPECT_EQ(commands(), (Texts{tar(), cp(), rm()}));
  EXPECT_EQ(host.records, LogRecords{unpack_says("failed to move files with error code: 6")});
  EXPECT_EQ(test::names_in(dest()), Texts());
}

TEST_F(Unpack, AnArchiveThatHoldsNothingFailsInTheCopy) {
  pack(archive(), config_dir(), " missing");
  host.records.clear();
  expect_external_failure([this] { unpack(archive(), dest()); });
  EXPECT_EQ(host.records, LogRecords{unpack_says("failed to move files with error code: 1")});
}

TEST_F(Unpack, AFailedRemovalAloneIsLoggedWithTheResultOfBefore) {
  pack_both();
  host.on_command = test::fail_commands("rm ", 9);
  expect_external_failure([this] { unpack(archive(), dest()); });
  EXPECT_EQ(host.records,
            LogRecords{unpack_says("failed to remove temporary directory with error code: 0")});
  EXPECT_EQ(test::names_in(dest()), (Texts{"a", "b"}));
}

TEST_F(Unpack, AFailedRemovalAfterAFailedTarRepeatsTheResultOfTar) {
  host.on_command = [](const std::string& command) -> std::optional<int> {
    return command.compare(0, 3, "tar") == 0 ? 4 : 9;
  };
  expect_external_failure([this] { unpack(archive(), dest()); });
  EXPECT_EQ(host.records,
            (LogRecords{unpack_says("failed to extract files with error code: 4"),
                        unpack_says("failed to remove temporary directory with error code: 4")}));
  EXPECT_EQ(test::names_in(dest()), Texts());
}

TEST_F(Unpack, BelowLevel1NothingIsLogged) {
  host.log_level = 0;
  host.on_command = [](const std::string&) -> std::optional<int> { return 1; };
  expect_external_failure([this] { unpack(archive(), dest()); });
  EXPECT_THROW(unpack(archive(), root() + "/missing"), XTOOStatus);
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(Unpack, WhatTheHostThrowsLeavesNoScratchDirectory) {
  pack_both();
  for (const std::string prefix : {"tar", "cp", "rm"}) {
    host.on_command = [&](const std::string& command) -> std::optional<int> {
      if (command.compare(0, prefix.size(), prefix) == 0) throw std::runtime_error(prefix);
      return std::nullopt;
    };
    EXPECT_THROW(unpack(archive(), dest()), std::runtime_error);
  }
  EXPECT_EQ(test::names_in(dest()), (Texts{"a", "b"}));
}

using ReadArchive = Packing;

TEST_F(ReadArchive, AFileIsReadFromItsStart) {
  TempFile file;
  file.create();
  ASSERT_EQ(write(file.fd(), "a\0b", 3), 3);
  std::vector<char> bytes(10, 'x');
  TempFile_to_BinObj(file, bytes);
  EXPECT_EQ(bytes, (std::vector<char>{'a', '\0', 'b'}));
}

TEST_F(ReadArchive, AnEmptyFileAndNoFileAreEmpty) {
  TempFile file;
  std::vector<char> bytes(10, 'x');
  TempFile_to_BinObj(file, bytes);
  EXPECT_TRUE(bytes.empty());
  bytes.resize(3);
  file.create();
  TempFile_to_BinObj(file, bytes);
  EXPECT_TRUE(bytes.empty());
}

TEST_F(ReadArchive, WhatCannotBeReadIsStatus5) {
  TempFile file;
  file.create();
  ASSERT_EQ(write(file.fd(), "abc", 3), 3);
  const int write_only = open(file.name().c_str(), O_WRONLY | O_CLOEXEC);
  dup2(write_only, file.fd());
  close(write_only);
  std::vector<char> bytes;
  const auto error = test::thrown_by<XTOOStatus>([&] { TempFile_to_BinObj(file, bytes); });
  EXPECT_EQ(error.Status(), 5);
  EXPECT_STREQ(error.ErrorMessage(), "Bad file descriptor");
  EXPECT_EQ(host.records,
            (LogRecords{{1,
                         "void ConfSave::TempFile_to_BinObj(const ConfSave::TempFile&, std::vector<char>&)",
                         "TempFile_to_BinObj",
                         "source/archive",
                         file.name() + ": failed to read from archive file: Bad file descriptor",
                         {}}}));
}

TEST_F(ReadArchive, AShortReadIsStatus5) {
  TempFile file;
  file.create();
  // Its size is given as a page, and it holds a few digits.
  const int shorter_than_it_says = open("/sys/kernel/uevent_seqnum", O_RDONLY | O_CLOEXEC);
  ASSERT_NE(shorter_than_it_says, -1);
  dup2(shorter_than_it_says, file.fd());
  close(shorter_than_it_says);
  std::vector<char> bytes;
  errno = ENOENT;
  const auto error = test::thrown_by<XTOOStatus>([&] { TempFile_to_BinObj(file, bytes); });
  EXPECT_EQ(error.Status(), 5);
  EXPECT_STREQ(error.ErrorMessage(), "Success");
  EXPECT_EQ(host.records,
            (LogRecords{{1,
                         "void ConfSave::TempFile_to_BinObj(const ConfSave::TempFile&, std::vector<char>&)",
                         "TempFile_to_BinObj",
                         "source/archive",
                         file.name() + ": failed to read from archive file: Success",
                         {}}}));
}

}  // namespace
