#include "archive/pack.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <regex>

#include "support/gateway.h"

namespace {

using namespace ConfSave;
using namespace test;

TEST(CommandLine, EachCommandHasItsExactText) {
  EXPECT_EQ(
      pack_command("/tmp/abc123", "/mnt/main/etc/", " failover.ini failover.ini.crg failoverd-config.crg"),
      "cd /mnt/main/etc/ && tar czf /tmp/abc123 --ignore-failed-read  failover.ini failover.ini.crg "
      "failoverd-config.crg 2>/dev/null");
  EXPECT_EQ(unpack_command("/tmp/abc123", "/cfg//x"),
            "tar xzf /tmp/abc123 --exclude corlu.serv -C /cfg//x 2>/dev/null");
  EXPECT_EQ(move_command("/cfg//x", "/cfg/"), "cp -alf /cfg//x/* /cfg//. 2>/dev/null");
  EXPECT_EQ(remove_command("/cfg//x"), "rm -rf /cfg//x 2>/dev/null");
}

constexpr const char* kFailure = "ConfSave::XExternalFailure 36: ";

struct Packing : Gateway {
  Packing() {
    std::filesystem::create_directory(dest());
    write_file(config_dir() + "a", "content of a");
    write_file(config_dir() + "b", "content of b");
  }

  ~Packing() override { std::filesystem::remove(archive()); }

  /// In the place of a temporary file.
  std::string archive() const { return temp_dir() + "/abc123"; }
  /// Ends in "/".
  std::string dest() const { return root() + "/dest/"; }

  void pack_both() {
    pack(archive(), config_dir(), " a b");
    host.commands.clear();
  }

  /// Checks that `call` fails with status 36 and logs these texts at level 1.
  void expect_failure(const Function& function, const Texts& texts, const std::function<void()>& call) {
    LogRecords expected;
    for (const std::string& text : texts) expected.push_back(says(function, 1, text, {4}));
    host.records.clear();
    EXPECT_EQ(thrown(call), kFailure);
    EXPECT_EQ(host.records, expected);
  }
};

using Pack = Packing;

TEST_F(Pack, MissingFilesAreIgnored) {
  pack(archive(), config_dir(), " a missing b none*");
  const std::string bytes = read_file(archive());
  EXPECT_EQ(members({bytes.begin(), bytes.end()}), (Texts{"a", "b"}));
  EXPECT_EQ(commands(),
            Texts{"cd <root>/config/ && tar czf <archive> --ignore-failed-read  a missing b none* "
                  "2>/dev/null"});
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(Pack, EmptyArgumentIsAFailureAndRunsNothing) {
  expect_failure(kPack, {}, [this] { pack("", config_dir(), " a"); });
  expect_failure(kPack, {}, [this] { pack(archive(), "", " a"); });
  expect_failure(kPack, {}, [this] { pack(archive(), config_dir(), ""); });
  expect_failure(kUnpack, {}, [this] { unpack("", dest()); });
  expect_failure(kUnpack, {}, [this] { unpack(archive(), ""); });
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(Pack, FailedTarIsLoggedWithItsResult) {
  host.on_command = fail_commands("cd ", 77);
  expect_failure(kPack, {"failed to create tar archive with error code: 77"},
                 [this] { pack(archive(), config_dir(), " a"); });
}

struct Unpack : Packing {
  void unpack_it() { unpack(archive(), dest()); }

  /// Gives these commands these results. Checks what runs, what is logged and which files are left.
  void expect_failed_command(const std::map<std::string, int>& results, const Texts& run,
                             const Texts& logged, const Texts& left) {
    pack_both();
    host.on_command = [&](const std::string& command) -> std::optional<int> {
      const auto found = results.find(command.substr(0, command.find(' ')));
      return found != results.end() ? std::optional(found->second) : std::nullopt;
    };
    expect_failure(kUnpack, logged, [this] { unpack_it(); });
    EXPECT_EQ(commands(), run);
    EXPECT_EQ(names_in(dest()), left);
    host.reset();
  }

  const Texts all_commands = unpack_into("<root>/dest/");
};

TEST_F(Unpack, FilesAreLinkedIntoTheDestination) {
  pack_both();
  write_file(dest() + "a", "old");
  write_file(dest() + "other", "stays");
  unpack_it();
  EXPECT_EQ(commands(), all_commands);
  EXPECT_EQ(tree(dest()), (std::map<std::string, std::string>{
                              {"a", "content of a"}, {"b", "content of b"}, {"other", "stays"}}));
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(Unpack, WithoutAScratchDirectoryNothingRuns) {
  const std::string missing = root() + "/missing";
  EXPECT_EQ(thrown([&] { unpack(archive(), missing); }), "XTOOStatus 3: No such file or directory");
  // The name is the last one that mkdtemp tried.
  ASSERT_EQ(host.records.size(), 1U);
  LogRecord record = host.records[0];
  record.text =
      std::regex_replace(record.text, std::regex("^" + missing + "/[A-Za-z0-9]{6}:"), "<scratch>:");
  EXPECT_EQ(record,
            says(kUnpack, 1, "<scratch>: failed to create temporary directory: No such file or directory"));
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(Unpack, OnlyTheOwnerMayUseTheScratchDirectoryUnderAnyUmask) {
  pack_both();
  mode_t mode = 0;
  host.on_command = [&](const std::string&) -> std::optional<int> {
    const Texts names = names_in(dest());
    struct stat status = {};
    if (mode == 0 && stat((dest() + names.at(0)).c_str(), &status) == 0) mode = status.st_mode & 07777U;
    return std::nullopt;
  };
  const mode_t before = umask(0777);
  unpack_it();
  umask(before);
  EXPECT_EQ(mode, 0700U);
}

TEST_F(Unpack, FailedTarSkipsCpAndAFailedCpIsLogged) {
  expect_failed_command({{"tar", 5}}, {all_commands[0], all_commands[2]},
                        {"failed to extract files with error code: 5"}, {});
  expect_failed_command({{"cp", 6}}, all_commands, {"failed to move files with error code: 6"}, {});
}

TEST_F(Unpack, FailedRmIsLoggedWithTheResultOfCp) {
  expect_failed_command({{"rm", 9}}, all_commands,
                        {"failed to remove temporary directory with error code: 0"}, {"a", "b"});
}

TEST_F(Unpack, FailedRmIsLoggedWithTheResultOfAFailedTar) {
  expect_failed_command({{"tar", 4}, {"rm", 9}}, {all_commands[0], all_commands[2]},
                        {"failed to extract files with error code: 4",
                         "failed to remove temporary directory with error code: 4"},
                        {});
}

TEST_F(Unpack, ArchiveWithoutFilesFailsInCp) {
  pack(archive(), config_dir(), " missing");
  expect_failure(kUnpack, {"failed to move files with error code: 1"}, [this] { unpack_it(); });
}

struct ReadArchive : Packing {
  /// Opens another file in place of the temporary file, whose read must then fail with this text.
  void expect_status_5(const char* path, int flags, const std::string& error) {
    const int other = open(path, flags | O_CLOEXEC);
    ASSERT_NE(other, -1);
    dup2(other, file.fd());
    close(other);
    errno = ENOENT;
    EXPECT_EQ(thrown([this] { TempFile_to_BinObj(file, bytes); }), "XTOOStatus 5: " + error);
    EXPECT_EQ(
        host.records,
        LogRecords{says({"void ConfSave::TempFile_to_BinObj(const ConfSave::TempFile&, std::vector<char>&)",
                         "TempFile_to_BinObj", "source/archive"},
                        1, file.name() + ": failed to read from archive file: " + error)});
  }

  TempFile file;
  Bytes bytes = Bytes(10, 'x');
};

TEST_F(ReadArchive, FileIsReadFromItsStart) {
  file.create();
  ASSERT_EQ(write(file.fd(), "a\0b", 3), 3);
  TempFile_to_BinObj(file, bytes);
  EXPECT_EQ(bytes, (Bytes{'a', '\0', 'b'}));
}

TEST_F(ReadArchive, EmptyFileAndNoFileAreEmpty) {
  TempFile_to_BinObj(file, bytes);
  EXPECT_EQ(bytes, Bytes());
  bytes.resize(3);
  file.create();
  TempFile_to_BinObj(file, bytes);
  EXPECT_EQ(bytes, Bytes());
}

TEST_F(ReadArchive, RefusedReadIsStatus5) {
  file.create();
  ASSERT_EQ(write(file.fd(), "abc", 3), 3);
  expect_status_5(file.name().c_str(), O_WRONLY, "Bad file descriptor");
}

TEST_F(ReadArchive, ShortReadIsStatus5) {
  file.create();
  // This file reports the size of a page and contains a few digits.
  expect_status_5("/sys/kernel/uevent_seqnum", O_RDONLY, "Success");
}

}  // namespace
