#include "confsave.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <regex>
#include <stdexcept>

#include "support/gateway.h"

namespace {

using namespace ConfSave;
using test::LogRecord;
using test::LogRecords;
using Bytes = std::vector<char>;
using Texts = std::vector<std::string>;

const std::string kUser =
    " user/gateway.conf user/gateway.key* user/interfaces.conf user/routes.conf user/filter.conf "
    "user/nat.conf "
    "user/services.conf user/users.conf user/schedule.conf user/notify.conf";
const std::string kDatabase = " user/config.db user/config.idx";
const std::string kPart =
    " user/kwtp.conf user/upgrade.conf user/corlucfg-config.crg user/kwtpd-config.crg";
const std::string kNetwork =
    " gw* peer* outnet* remote.txt quelvian.re corluadr* linkmap.dat station user/key_set hub/out hub/old "
    "hub/key";

class ArchiveTest : public test::Gateway {
 protected:
  static std::string pack_of(const std::string& dir, const std::string& files) {
    return "cd " + dir + " && tar czf <archive> --ignore-failed-read " + files + " 2>/dev/null";
  }
  static std::string pack_etc() {
    return pack_of("/mnt/main/etc/", " failover.ini failover.ini.crg failoverd-config.crg");
  }
  static Texts unpack_into(const std::string& dir) {
    return {"tar xzf <archive> --exclude corlu.serv -C " + dir + "/<scratch> 2>/dev/null",
            "cp -alf " + dir + "/<scratch>/* " + dir + "/. 2>/dev/null",
            "rm -rf " + dir + "/<scratch> 2>/dev/null"};
  }

  void expect_packed(conftype type, const Texts& expected) {
    host.commands.clear();
    Archive archive(type, config_dir());
    archive.Create();
    EXPECT_EQ(commands(), expected) << type;
  }

  std::pair<Bytes, Bytes> packed_configuration() const {
    Archive archive(conf_full, config_dir());
    archive.Create();
    std::pair<Bytes, Bytes> archives;
    archive.Fetch(archives.first, archives.second);
    return archives;
  }

  /// The temporary files that are open, and their descriptors.
  std::map<std::string, int> temporary_files() const {
    std::map<std::string, int> files;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      const std::string file = std::filesystem::read_symlink(entry.path(), gone).string();
      if (file.rfind(temp_dir() + "/", 0) == 0) files[file] = std::stoi(entry.path().filename().string());
    }
    return files;
  }

  Bytes archive_of(const std::map<std::string, std::string>& files) {
    const std::string dir = root() + "/source/";
    std::filesystem::remove_all(dir);
    for (const auto& [name, content] : files) {
      std::filesystem::create_directories(std::filesystem::path(dir + name).parent_path());
      test::write_file(dir + name, content);
    }
    return test::make_archive(dir, "$(ls -A)");
  }

  void restore(conftype type, const Bytes& etc, const Bytes& keybase, const char* target = nullptr) {
    host.commands.clear();
    Archive archive(type, config_dir());
    archive.Create(etc, keybase);
    archive.Extract(target);
  }
};

using ArchiveCreate = ArchiveTest;

TEST_F(ArchiveCreate, AFullConfigurationHasTheNetworkDescriptionLast) {
  expect_packed(conf_full, {pack_etc(), pack_of("<root>/config/", kUser + kPart + kNetwork)});
}

TEST_F(ArchiveCreate, APartialConfigurationHasNoNetworkDescription) {
  expect_packed(conf_part, {pack_etc(), pack_of("<root>/config/", kUser + kPart)});
}

TEST_F(ArchiveCreate, UnknownTypesArePackedAsPartialOnes) {
  for (const int type : {0, 7, -1}) {
    expect_packed(static_cast<conftype>(type), {pack_etc(), pack_of("<root>/config/", kUser + kPart)});
  }
}

TEST_F(ArchiveCreate, ThePacketFiltersConfigurationRunsTarOnce) {
  expect_packed(conf_corlu,
                {pack_of("<root>/config/", kUser + " user/upgrade.conf user/corlucfg-config.crg")});
}

TEST_F(ArchiveCreate, TheDatabaseIsPackedWhenBothFilesAreThere) {
  test::write_file(config_dir() + "user/config.db", "db");
  expect_packed(conf_part, {pack_etc(), pack_of("<root>/config/", kUser + kPart)});
  test::write_file(config_dir() + "user/config.idx", "idx");
  expect_packed(conf_part, {pack_etc(), pack_of("<root>/config/", kUser + kDatabase + kPart)});
  expect_packed(conf_full, {pack_etc(), pack_of("<root>/config/", kUser + kDatabase + kPart + kNetwork)});
  expect_packed(conf_corlu, {pack_of("<root>/config/",
                                     kUser + kDatabase + " user/upgrade.conf user/corlucfg-config.crg")});
  std::filesystem::remove(config_dir() + "user/config.db");
  expect_packed(conf_part, {pack_etc(), pack_of("<root>/config/", kUser + kPart)});
}

TEST_F(ArchiveCreate, ADatabaseThatCannotBeLookedForFailsBeforeAnyCommand) {
  std::filesystem::remove_all(config_dir() + "user");
  test::write_file(config_dir() + "user", "a file");
  Archive archive(conf_full, config_dir());
  EXPECT_EQ(test::thrown_by<XExternalFailure>([&] { archive.Create(); }).Status(), 19);
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(ArchiveCreate, AFailedTarLeavesNoTemporaryFile) {
  for (const std::string& dir : {std::string("cd /mnt"), "cd " + config_dir()}) {
    host.on_command = test::fail_commands(dir, 1);
    EXPECT_EQ(
        test::thrown_by<XExternalFailure>([&] { Archive(conf_full, config_dir()).Create(); }).Status(), 36);
    EXPECT_EQ(temp_files(), Texts());
  }
}

using ArchiveFetch = ArchiveTest;

TEST_F(ArchiveFetch, BothArchivesAreWhatTarWrote) {
  make_configuration();
  Archive archive(conf_full, config_dir());
  archive.Create();
  Bytes etc(5, 'x');
  Bytes keybase(5, 'x');
  archive.Fetch(etc, keybase);
  EXPECT_EQ(test::members(etc), (Texts{"failover.ini", "failover.ini.crg", "failoverd-config.crg"}));
  EXPECT_EQ(test::members(keybase).size(), 30U);
  EXPECT_EQ(test::members(keybase).front(), "user/gateway.conf");
  EXPECT_EQ(test::members(keybase).back(), "hub/key");
}

TEST_F(ArchiveFetch, ThePacketFiltersConfigurationHasNoEtc) {
  make_configuration();
  Archive archive(conf_corlu, config_dir());
  archive.Create();
  Bytes etc(5, 'x');
  Bytes keybase;
  archive.Fetch(etc, keybase);
  EXPECT_EQ(etc, Bytes());
  EXPECT_EQ(test::members(keybase).size(), 15U);
}

TEST_F(ArchiveFetch, WhatWasPutInComesOut) {
  const Bytes first{'a', '\0'};
  const Bytes second{'b'};
  Archive archive(conf_full, config_dir());
  archive.Create(first, second);
  EXPECT_EQ(temp_files().size(), 2U);
  Bytes etc;
  Bytes keybase;
  archive.Fetch(etc, keybase);
  EXPECT_EQ(etc, first);
  EXPECT_EQ(keybase, second);
}

TEST_F(ArchiveFetch, EmptyVectorsMakeEmptyFiles) {
  Archive archive(conf_corlu, config_dir());
  archive.Create(Bytes(), Bytes());
  EXPECT_EQ(temp_files().size(), 2U);
  Bytes etc(1);
  Bytes keybase(1);
  archive.Fetch(etc, keybase);
  EXPECT_TRUE(etc.empty());
  EXPECT_TRUE(keybase.empty());
}

/// While it lives, no file grows beyond `bytes`; writing more is an error and no signal.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, handler_);
  }

 private:
  rlimit before_{};
  sighandler_t handler_;
};

class ArchiveFromBytes : public ArchiveTest {
 protected:
  void expect_status_6(rlim_t limit, const char* text, const Bytes& etc, const Bytes& keybase) {
    Archive archive(conf_full, config_dir());
    host.records.clear();
    {
      const FileSizeLimit full(limit);
      const auto error = test::thrown_by<XTOOStatus>([&] { archive.Create(etc, keybase); });
      EXPECT_EQ(error.Status(), 6);
      EXPECT_STREQ(error.ErrorMessage(), text);
    }
    ASSERT_EQ(host.records.size(), 1U);
    LogRecord record = host.records[0];
    record.text =
        std::regex_replace(record.text, std::regex("^" + temp_dir() + "/[A-Za-z0-9]{6}"), "<file>");
    EXPECT_EQ(
        record,
        (LogRecord{1,
                   "void ConfSave::Archive::Create(const std::vector<char>&, const std::vector<char>&)",
                   "Create",
                   "source/archive",
                   std::string("<file>: failed to write to temporary file: ") + text,
                   {}}));
  }
};

TEST_F(ArchiveFromBytes, AShortWriteIsStatus6) {
  expect_status_6(10, "Success", Bytes(11, 'x'), Bytes());
  expect_status_6(10, "Success", Bytes(10, 'x'), Bytes(11, 'x'));
}

TEST_F(ArchiveFromBytes, ARefusedWriteIsStatus6) {
  expect_status_6(0, "File too large", Bytes(1, 'x'), Bytes());
  expect_status_6(0, "File too large", Bytes(), Bytes(1, 'x'));
}

TEST_F(ArchiveFromBytes, WithoutADirectoryForTemporaryFilesItIsStatus17) {
  std::filesystem::remove(temp_dir());
  Archive archive(conf_full, config_dir());
  EXPECT_EQ(test::thrown_by<XTOOStatus>([&] { archive.Create(Bytes(), Bytes()); }).Status(), 17);
  EXPECT_EQ(test::thrown_by<XTOOStatus>([&] { archive.Create(); }).Status(), 17);
  std::filesystem::create_directory(temp_dir());
}

TEST_F(ArchiveFromBytes, TheFilesStandAtTheirBeginning) {
  Archive archive(conf_full, config_dir());
  archive.Create(Bytes(5, 'e'), Bytes(6, 'k'));
  const auto descriptors = temporary_files();
  ASSERT_EQ(descriptors.size(), 2U);
  for (const auto& [name, fd] : descriptors) EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0) << name;
}

TEST_F(ArchiveFromBytes, EtcIsWrittenFirst) {
  Archive archive(conf_full, config_dir());
  const FileSizeLimit full(10);
  EXPECT_THROW(archive.Create(Bytes(5, 'e'), Bytes(11, 'k')), XTOOStatus);
  EXPECT_EQ(temp_files().size(), 2U);
}

TEST_F(ArchiveFetch, EtcIsReadFirst) {
  Archive archive(conf_full, config_dir());
  archive.Create(Bytes(1, 'e'), Bytes(1, 'k'));
  std::string etc_file;
  for (const auto& [name, fd] : temporary_files()) {
    if (test::read_file(name) == "e") etc_file = name;
    const int write_only = open(name.c_str(), O_WRONLY | O_CLOEXEC);
    dup2(write_only, fd);
    close(write_only);
  }
  host.records.clear();
  Bytes etc;
  Bytes keybase;
  EXPECT_THROW(archive.Fetch(etc, keybase), XTOOStatus);
  ASSERT_EQ(host.records.size(), 1U);
  EXPECT_EQ(host.records[0].text, etc_file + ": failed to read from archive file: Bad file descriptor");
}

TEST_F(ArchiveFetch, AFileThatCannotBeRewoundIsStatus54) {
  Archive archive(conf_full, config_dir());
  host.on_command = [this](const std::string&) {
    for (const auto& [name, fd] : temporary_files()) close(fd);
    return 0;
  };
  const auto error = test::thrown_by<XTOOStatus>([&] { archive.Create(); });
  EXPECT_EQ(error.Status(), 54);
  EXPECT_STREQ(error.ErrorMessage(), "Bad file descriptor");
  EXPECT_EQ(host.commands.size(), 1U);
}

TEST_F(ArchiveFetch, TheKeybaseFileGoesBeforeTheEtcFile) {
  Texts expected;
  {
    Archive archive(conf_full, config_dir());
    archive.Create(Bytes(1, 'e'), Bytes(1, 'k'));
    for (const auto& [name, fd] : temporary_files()) {
      const bool etc = test::read_file(name) == "e";
      expected.insert(etc ? expected.end() : expected.begin(),
                      name + ": failed to remove temporary file: No such file or directory");
      std::filesystem::remove(name);
    }
  }
  Texts told;
  for (const LogRecord& record : host.records) told.push_back(record.text);
  EXPECT_EQ(told, expected);
}

using ArchiveExtract = ArchiveTest;

TEST_F(ArchiveExtract, WithoutATargetBothGoIntoTheirPlaces) {
  restore(conf_full, archive_of({{"failover.ini", "f"}}), archive_of({{"user/gateway.conf", "g"}}));
  Texts expected = unpack_into("/mnt/main/etc/");
  for (const std::string& command : unpack_into("<root>/config/")) expected.push_back(command);
  EXPECT_EQ(commands(), expected);
  EXPECT_EQ(test::read_file("/mnt/main/etc/failover.ini"), "f");
  EXPECT_EQ(test::read_file(config_dir() + "user/gateway.conf"), "g");
}

TEST_F(ArchiveExtract, ATargetTakesBoth) {
  const std::string target = root() + "/target/";
  std::filesystem::create_directory(target);
  restore(conf_full, archive_of({{"failover.ini", "f"}}), archive_of({{"user/gateway.conf", "g"}}),
          target.c_str());
  Texts expected = unpack_into("<root>/target/");
  for (const std::string& command : unpack_into("<root>/target/")) expected.push_back(command);
  EXPECT_EQ(commands(), expected);
  EXPECT_EQ(test::tree(target),
            (std::map<std::string, std::string>{{"failover.ini", "f"}, {"user/gateway.conf", "g"}}));
  EXPECT_EQ(test::names_in("/mnt/main/etc/"), Texts());
}

TEST_F(ArchiveExtract, ThePacketFiltersEtcIsNotUnpacked) {
  restore(conf_corlu, archive_of({{"failover.ini", "f"}}), archive_of({{"user/gateway.conf", "g"}}));
  EXPECT_EQ(commands(), unpack_into("<root>/config/"));
}

TEST_F(ArchiveExtract, TheDatabaseIsDeletedFirst) {
  for (const char* name : {"config.db-journal", "config.db", "config.idx"}) {
    test::write_file(config_dir() + "user/" + name, "old");
  }
  Texts seen;
  host.on_command = [&](const std::string&) -> std::optional<int> {
    for (const std::string& name : test::names_in(config_dir() + "user")) seen.push_back(name);
    return std::nullopt;
  };
  restore(conf_corlu, Bytes(), archive_of({{"other", "x"}}));
  EXPECT_EQ(seen, Texts());
}

TEST_F(ArchiveExtract, WithATargetTheDatabaseOfTheTargetIsDeleted) {
  const std::string target = root() + "/target/";
  std::filesystem::create_directories(target + "user");
  test::write_file(target + "user/config.db", "old");
  test::write_file(config_dir() + "user/config.db", "old");
  restore(conf_corlu, Bytes(), archive_of({{"other", "x"}}), target.c_str());
  EXPECT_FALSE(test::exists(target + "user/config.db"));
  EXPECT_TRUE(test::exists(config_dir() + "user/config.db"));
}

TEST_F(ArchiveExtract, ADatabaseFileThatCannotBeDeletedFailsBeforeAnyCommand) {
  std::filesystem::create_directory(config_dir() + "user/config.db");
  EXPECT_EQ(test::thrown_by<XExternalFailure>([this] { restore(conf_full, Bytes(), Bytes()); }).Status(),
            43);
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(ArchiveExtract, WhatWasNeverCreatedOnlyDeletesTheDatabase) {
  for (const char* name : {"config.db-journal", "config.db", "config.idx", "gateway.conf"}) {
    test::write_file(config_dir() + "user/" + name, "old");
  }
  Archive(conf_full, config_dir()).Extract(nullptr);
  EXPECT_EQ(test::tree(config_dir()), (std::map<std::string, std::string>{{"user/gateway.conf", "old"}}));
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(ArchiveExtract, CorluServIsNotRestoredWhereverItIs) {
  restore(conf_corlu, Bytes(),
          archive_of(
              {{"corlu.serv", "x"}, {"user/corlu.serv", "x"}, {"a/b/corlu.serv", "x"}, {"a/kept", "k"}}));
  EXPECT_EQ(test::tree(config_dir()), (std::map<std::string, std::string>{{"a/kept", "k"}}));
}

TEST_F(ArchiveExtract, TopLevelNamesWithADotAreNotMoved) {
  restore(conf_corlu, Bytes(), archive_of({{".hidden", "x"}, {"user/.kept", "k"}, {"plain", "p"}}));
  EXPECT_EQ(test::tree(config_dir()),
            (std::map<std::string, std::string>{{"plain", "p"}, {"user/.kept", "k"}}));
}

TEST_F(ArchiveExtract, AnArchiveThatUnpacksToNothingIsAFailure) {
  const Bytes nothing = test::make_archive(root(), "-T /dev/null");
  EXPECT_EQ(test::thrown_by<XExternalFailure>([&] { restore(conf_corlu, Bytes(), nothing); }).Status(), 36);
}

TEST_F(ArchiveExtract, AnEtcThatFailsLeavesTheRestUntouchedAndIsNotRolledBack) {
  test::write_file(config_dir() + "user/config.db", "old");
  EXPECT_THROW(restore(conf_full, Bytes(), archive_of({{"a", "x"}})), XExternalFailure);
  EXPECT_FALSE(test::exists(config_dir() + "a"));
  EXPECT_FALSE(test::exists(config_dir() + "user/config.db"));
}

TEST_F(ArchiveExtract, EveryFileComesBackWithModeAndTime) {
  make_configuration();
  const auto [etc, keybase] = packed_configuration();
  const auto before = test::tree(config_dir());
  std::map<std::string, std::pair<mode_t, time_t>> properties;
  const auto look = [this](const std::string& name) {
    struct stat status = {};
    EXPECT_EQ(stat((config_dir() + name).c_str(), &status), 0) << name;
    return std::pair(status.st_mode, status.st_mtime);
  };
  for (const auto& [name, content] : before) properties[name] = look(name);
  for (const auto& [name, content] : before) test::write_file(config_dir() + name, "damaged");
  std::filesystem::remove(config_dir() + "hub/key");

  restore(conf_full, etc, keybase);
  EXPECT_EQ(test::tree(config_dir()), before);
  for (const auto& [name, content] : before) EXPECT_EQ(look(name), properties[name]) << name;
}

TEST_F(ArchiveExtract, DirectoriesWithoutAnEntryGetTheModeOfTheUmask) {
  make_configuration();
  const auto [etc, keybase] = packed_configuration();
  const auto mode_of = [this](const char* name) {
    return std::filesystem::status(config_dir() + name).permissions();
  };
  const auto stored_mode = mode_of("station");
  for (const char* name : {"user", "hub", "station"}) {
    std::filesystem::permissions(config_dir() + name, std::filesystem::perms{0751});
  }

  const mode_t umask_before = umask(027);
  restore(conf_full, etc, keybase);
  umask(umask_before);
  EXPECT_EQ(mode_of("user"), std::filesystem::perms{0750});
  EXPECT_EQ(mode_of("hub"), std::filesystem::perms{0750});
  EXPECT_EQ(mode_of("station"), stored_mode);
}

TEST_F(ArchiveExtract, WhatTheHostThrowsLeavesNothingBehind) {
  const Bytes etc = archive_of({{"failover.ini", "f"}});
  const Bytes keybase = archive_of({{"a", "x"}});
  for (std::size_t failing = 0; failing < 6; ++failing) {
    host.on_command = [&](const std::string&) -> std::optional<int> {
      if (host.commands.size() == failing + 1) throw std::runtime_error("host");
      return std::nullopt;
    };
    EXPECT_THROW(restore(conf_full, etc, keybase), std::runtime_error) << failing;
    EXPECT_EQ(temp_files(), Texts());
  }
}

}  // namespace
