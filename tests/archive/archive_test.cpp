#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <csignal>
#include <regex>

#include "support/gateway.h"

namespace {

namespace fs = std::filesystem;

using namespace ConfSave;
using namespace test;

using Contents = std::map<std::string, std::string>;

struct ArchiveTest : Gateway {
  /// A gzip tar archive of these files.
  Bytes archive_of(const Contents& files) const {
    const std::string dir = root() + "/source/";
    fs::remove_all(dir);
    for (const auto& [name, content] : files) {
      fs::create_directories(fs::path(dir + name).parent_path());
      write_file(dir + name, content);
    }
    return make_archive(dir, "$(ls -A)");
  }

  void restore(conftype type, const Bytes& etc, const Bytes& keybase, const char* target = nullptr) {
    host.commands.clear();
    Archive archive(type, config_dir());
    archive.Create(etc, keybase);
    archive.Extract(target);
  }

  /// Restores one file from each archive.
  void restore_both(conftype type, const char* target = nullptr) {
    restore(type, archive_of({{"failover.ini", "f"}}), archive_of({{"user/gateway.conf", "g"}}), target);
  }

  std::string make_target() const {
    fs::create_directories(root() + "/target/user");
    return root() + "/target/";
  }

  void write_user_files(const Texts& names) const {
    for (const std::string& name : names) write_file(config_dir() + "user/" + name, "old");
  }
};

/// The etc archive, then the keybase archive.
std::pair<Bytes, Bytes> fetch(const Archive& archive) {
  std::pair<Bytes, Bytes> archives{Bytes(5, 'x'), Bytes(5, 'x')};
  archive.Fetch(archives.first, archives.second);
  return archives;
}

// Packing

using ArchiveCreate = ArchiveTest;

/// The commands for each type if the configuration has a database. Unknown types count as partial.
const std::pair<int, Texts> kPacking[] = {
    {conf_full, {kPackEtc, kPackFull}}, {conf_part, {kPackEtc, kPackPart}}, {conf_corlu, {kPackCorlu}},
    {0, {kPackEtc, kPackPart}},         {7, {kPackEtc, kPackPart}},         {-1, {kPackEtc, kPackPart}}};

TEST_F(ArchiveCreate, DatabaseIsPackedOnlyIfBothFilesExist) {
  for (const Texts& files :
       {Texts{}, Texts{"config.db"}, Texts{"config.idx"}, Texts{"config.db", "config.idx"}}) {
    empty_directory(config_dir() + "user");
    write_user_files(files);
    for (auto [type, expected] : kPacking) {
      if (files.size() < 2) {
        expected.back() =
            std::regex_replace(expected.back(), std::regex(" user/config.db user/config.idx"), "");
      }
      host.commands.clear();
      Archive(static_cast<conftype>(type), config_dir()).Create();
      EXPECT_EQ(commands(), expected) << type;
    }
  }
}

TEST_F(ArchiveCreate, FailedAccessToTheDatabaseRunsNoCommand) {
  fs::remove_all(config_dir() + "user");
  write_file(config_dir() + "user", "a file");
  EXPECT_EQ(thrown([this] { Archive(conf_full, config_dir()).Create(); }),
            "ConfSave::XExternalFailure 19: ");
  EXPECT_EQ(host.commands, Texts());
}

using ArchiveFetch = ArchiveTest;

TEST_F(ArchiveFetch, BytesComeBackAsTheyWere) {
  for (const auto& bytes : {std::pair(Bytes{'a', '\0'}, Bytes{'b'}), {Bytes(), Bytes()}}) {
    for (const conftype type : {conf_full, conf_corlu}) {
      Archive archive(type, config_dir());
      archive.Create(bytes.first, bytes.second);
      EXPECT_EQ(temp_files().size(), 2U);
      EXPECT_EQ(fetch(archive), bytes);
    }
  }
}

TEST_F(ArchiveFetch, EtcIsReadFirst) {
  Archive archive(conf_full, config_dir());
  archive.Create(Bytes(1, 'e'), Bytes(1, 'k'));
  std::string etc_file;
  for (const auto& [name, fd] : open_below(temp_dir())) {
    if (read_file(name) == "e") etc_file = name;
    const int write_only = open(name.c_str(), O_WRONLY | O_CLOEXEC);
    dup2(write_only, fd);
    close(write_only);
  }
  EXPECT_EQ(thrown([&] { fetch(archive); }), "XTOOStatus 5: Bad file descriptor");
  ASSERT_EQ(host.records.size(), 1U);
  EXPECT_EQ(host.records[0].text, etc_file + ": failed to read from archive file: Bad file descriptor");
}

TEST_F(ArchiveFetch, FileThatCannotBeRewoundIsStatus54) {
  host.on_command = [this](const std::string&) {
    for (const auto& [name, fd] : open_below(temp_dir())) close(fd);
    return 0;
  };
  EXPECT_EQ(thrown([this] { Archive(conf_full, config_dir()).Create(); }),
            "XTOOStatus 54: Bad file descriptor");
  EXPECT_EQ(host.commands.size(), 1U);
}

TEST_F(ArchiveFetch, KeybaseFileIsRemovedBeforeTheEtcFile) {
  Texts expected;
  {
    Archive archive(conf_full, config_dir());
    archive.Create(Bytes(1, 'e'), Bytes(1, 'k'));
    for (const auto& [name, fd] : open_below(temp_dir())) {
      const bool etc = read_file(name) == "e";
      expected.insert(etc ? expected.end() : expected.begin(),
                      name + ": failed to remove temporary file: No such file or directory");
      fs::remove(name);
    }
  }
  Texts logged;
  for (const LogRecord& record : host.records) logged.push_back(record.text);
  EXPECT_EQ(logged, expected);
}

// Archives made of bytes

/// Calls `call` while no file can grow beyond `bytes`; writing more is an error instead of a signal.
std::string thrown_with_limit(rlim_t bytes, const std::function<void()>& call) {
  const sighandler_t handler = signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit limit{bytes, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limit);
  std::string result = thrown(call);
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, handler);
  return result;
}

using ArchiveFromBytes = ArchiveTest;

TEST_F(ArchiveFromBytes, ShortOrRefusedWriteIsStatus6) {
  struct Write {
    rlim_t limit;
    std::size_t etc;
    std::size_t keybase;
    std::string error;
  };
  for (const auto& [limit, etc, keybase, error] :
       {Write{10, 11, 0, "Success"}, Write{10, 10, 11, "Success"}, Write{0, 1, 0, "File too large"},
        Write{0, 0, 1, "File too large"}}) {
    Archive archive(conf_full, config_dir());
    host.records.clear();
    const auto create = [&, e = etc, k = keybase] { archive.Create(Bytes(e, 'x'), Bytes(k, 'x')); };
    EXPECT_EQ(thrown_with_limit(limit, create), "XTOOStatus 6: " + error);
    EXPECT_EQ(temp_files().size(), etc > limit ? 1U : 2U);
    ASSERT_EQ(host.records.size(), 1U);
    host.records[0].text = std::regex_replace(host.records[0].text,
                                              std::regex("^" + temp_dir() + "/[A-Za-z0-9]{6}"), "<file>");
    EXPECT_EQ(host.records[0],
              says({"void ConfSave::Archive::Create(const std::vector<char>&, const std::vector<char>&)",
                    "Create", "source/archive"},
                   1, "<file>: failed to write to temporary file: " + error));
  }
}

TEST_F(ArchiveFromBytes, FilesAreRewound) {
  Archive archive(conf_full, config_dir());
  archive.Create(Bytes(5, 'e'), Bytes(6, 'k'));
  const auto descriptors = open_below(temp_dir());
  ASSERT_EQ(descriptors.size(), 2U);
  for (const auto& [name, fd] : descriptors) EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0) << name;
}

// Unpacking

using ArchiveExtract = ArchiveTest;

TEST_F(ArchiveExtract, WithoutATargetEachArchiveIsUnpackedInItsPlace) {
  restore_both(conf_full);
  EXPECT_EQ(commands(), unpack_into("/mnt/main/etc/") + unpack_into("<root>/config/"));
  EXPECT_EQ(tree(etc_dir()), (Contents{{"failover.ini", "f"}}));
  EXPECT_EQ(tree(config_dir()), (Contents{{"user/gateway.conf", "g"}}));
  restore_both(conf_corlu);
  EXPECT_EQ(commands(), unpack_into("<root>/config/"));
}

TEST_F(ArchiveExtract, TargetReceivesBoth) {
  const std::string target = make_target();
  restore_both(conf_full, target.c_str());
  EXPECT_EQ(commands(), unpack_into("<root>/target/") + unpack_into("<root>/target/"));
  EXPECT_EQ(tree(target), (Contents{{"failover.ini", "f"}, {"user/gateway.conf", "g"}}));
  EXPECT_EQ(names_in(etc_dir()), Texts());
}

TEST_F(ArchiveExtract, WithoutArchivesOnlyTheDatabaseIsDeleted) {
  write_user_files({"config.db-journal", "config.db", "config.idx", "gateway.conf"});
  Archive(conf_full, config_dir()).Extract(nullptr);
  EXPECT_EQ(tree(config_dir()), (Contents{{"user/gateway.conf", "old"}}));
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(ArchiveExtract, WithATargetTheDatabaseOfTheTargetIsDeleted) {
  const std::string target = make_target();
  write_file(target + "user/config.db", "old");
  write_user_files({"config.db"});
  restore(conf_corlu, Bytes(), archive_of({{"other", "x"}}), target.c_str());
  EXPECT_FALSE(exists(target + "user/config.db"));
  EXPECT_TRUE(exists(config_dir() + "user/config.db"));
}

TEST_F(ArchiveExtract, DatabaseFileThatCannotBeDeletedRunsNoCommand) {
  fs::create_directory(config_dir() + "user/config.db");
  EXPECT_EQ(thrown([this] { restore(conf_full, Bytes(), Bytes()); }), "ConfSave::XExternalFailure 43: ");
  EXPECT_EQ(host.commands, Texts());
}

TEST_F(ArchiveExtract, CorluServIsNeverRestored) {
  restore(
      conf_corlu, Bytes(),
      archive_of({{"corlu.serv", ""}, {"user/corlu.serv", ""}, {"a/b/corlu.serv", ""}, {"a/kept", "k"}}));
  EXPECT_EQ(tree(config_dir()), (Contents{{"a/kept", "k"}}));
}

TEST_F(ArchiveExtract, TopLevelNamesWithADotAreNotMoved) {
  restore(conf_corlu, Bytes(), archive_of({{".hidden", "x"}, {"user/.kept", "k"}, {"plain", "p"}}));
  EXPECT_EQ(tree(config_dir()), (Contents{{"plain", "p"}, {"user/.kept", "k"}}));
}

TEST_F(ArchiveExtract, ArchiveWithoutFilesIsAFailure) {
  const Bytes nothing = make_archive(root(), "-T /dev/null");
  EXPECT_EQ(thrown([&] { restore(conf_corlu, Bytes(), nothing); }), "ConfSave::XExternalFailure 36: ");
}

TEST_F(ArchiveExtract, FailedEtcStopsTheRestoreAndNothingIsRolledBack) {
  write_user_files({"config.db"});
  EXPECT_EQ(thrown([&] {
              restore(conf_full, Bytes(), archive_of({{"a", "x"}}));
            }),
            "ConfSave::XExternalFailure 36: ");
  EXPECT_EQ(tree(config_dir()), Contents());
}

TEST_F(ArchiveExtract, DirectoriesWithoutAnEntryGetTheModeOfTheUmask) {
  make_configuration();
  Archive archive(conf_full, config_dir());
  archive.Create();
  const auto [etc, keybase] = fetch(archive);
  const auto mode_of = [this](const char* name) { return fs::status(config_dir() + name).permissions(); };
  const auto stored_mode = mode_of("station");
  for (const char* name : {"user", "hub", "station"}) {
    fs::permissions(config_dir() + name, fs::perms{0751});
  }

  const mode_t umask_before = umask(027);
  restore(conf_full, etc, keybase);
  umask(umask_before);
  EXPECT_EQ(mode_of("user"), fs::perms{0750});
  EXPECT_EQ(mode_of("hub"), fs::perms{0750});
  EXPECT_EQ(mode_of("station"), stored_mode);
}

TEST_F(ArchiveExtract, ExceptionOfTheHostLeavesNoFileBehind) {
  const Bytes etc = archive_of({{"failover.ini", "f"}});
  const Bytes keybase = archive_of({{"a", "x"}});
  for (std::size_t failing = 1; failing <= 6; ++failing) {
    host.on_command = [&](const std::string&) -> std::optional<int> {
      if (host.commands.size() == failing) throw std::runtime_error("host");
      return std::nullopt;
    };
    EXPECT_EQ(thrown([&] { restore(conf_full, etc, keybase); }), "std::runtime_error: host") << failing;
    EXPECT_EQ(temp_files(), Texts());
  }
}

}  // namespace
