#include "support/gateway.h"

namespace {

namespace fs = std::filesystem;

using namespace ConfSave;
using namespace test;

const Function kIsFileExist{"bool ConfSave::IsFileExist(const char*)", "IsFileExist", "source/archive"};
const Function kRemoveFileIfExists{"void ConfSave::RemoveFileIfExists(const char*)", "RemoveFileIfExists",
                                   "source/archive"};

struct FileTest : Gateway {
  std::string user(const std::string& name) const { return config_dir() + "user/" + name; }

  void touch(const Texts& names) const {
    for (const std::string& name : names) write_file(user(name), name);
  }
};

TEST_F(FileTest, FileAndADirectoryExistUntilTheyAreRemoved) {
  touch({"a"});
  EXPECT_TRUE(IsFileExist(user("a").c_str()));
  EXPECT_TRUE(IsFileExist(config_dir().c_str()));
  // The second time there is no such file.
  for (int times = 1; times <= 2; ++times) {
    RemoveFileIfExists(user("a").c_str());
    EXPECT_FALSE(IsFileExist(user("a").c_str()));
  }
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(FileTest, FailedAccessIsStatus19) {
  touch({"a"});
  EXPECT_EQ(thrown([this] { IsFileExist(user("a/b").c_str()); }), "ConfSave::XExternalFailure 19: ");
  EXPECT_EQ(host.records,
            LogRecords{says(kIsFileExist, 1, "access() for '" + user("a/b") + "' failed (code 20)", {4})});
}

using ConfigDb = FileTest;

TEST_F(ConfigDb, ExistsIfFiles30And31DoWhetherOrNotFile29Does) {
  touch({"config.db-journal", "config.idx"});
  EXPECT_FALSE(IsConfigDbExist(config_dir().c_str()));
  touch({"config.db"});
  fs::remove(user("config.db-journal"));
  EXPECT_TRUE(IsConfigDbExist(config_dir().c_str()));
  fs::remove(user("config.idx"));
  EXPECT_FALSE(IsConfigDbExist(config_dir().c_str()));
}

TEST_F(ConfigDb, File31IsNotTestedIfFile30IsMissing) {
  // A test of a loop of links is a failure.
  fs::create_symlink(user("config.idx"), user("config.idx"));
  EXPECT_FALSE(IsConfigDbExist(config_dir().c_str()));
  touch({"config.db"});
  EXPECT_EQ(thrown([this] { IsConfigDbExist(config_dir().c_str()); }), "ConfSave::XExternalFailure 19: ");
}

TEST_F(ConfigDb, AllThreeFilesAreRemovedAndNoOther) {
  touch({"config.db-journal", "config.db", "config.idx", "gateway.conf"});
  RemoveConfigDb(config_dir().c_str());
  EXPECT_EQ(names_in(user("")), Texts{"gateway.conf"});
  RemoveConfigDb(config_dir().c_str());
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(ConfigDb, IsRemovedBehindALinkInThePlaceOfUser) {
  const std::string elsewhere = root() + "/elsewhere/";
  fs::rename(user(""), elsewhere);
  fs::create_directory_symlink(elsewhere, config_dir() + "user");
  write_file(elsewhere + "config.db", "");
  RemoveConfigDb(config_dir().c_str());
  EXPECT_EQ(names_in(elsewhere), Texts());
}

TEST_F(ConfigDb, FirstFailureStopsTheRemoval) {
  touch({"config.db-journal", "config.idx"});
  fs::create_directory(user("config.db"));
  EXPECT_EQ(thrown([this] { RemoveConfigDb(config_dir().c_str()); }), "ConfSave::XExternalFailure 43: ");
  EXPECT_EQ(host.records,
            LogRecords{says(kRemoveFileIfExists, 1,
                            "unlink() for '" + user("config.db") + "' failed (code 21)", {4})});
  EXPECT_EQ(names_in(user("")), (Texts{"config.db", "config.idx"}));
}

TEST_F(ConfigDb, DirectoryIsAPrefix) {
  fs::create_directory(root() + "/cfguser");
  for (const char* name : {"config.db", "config.idx"}) write_file(root() + "/cfguser/" + name, "");
  EXPECT_TRUE(IsConfigDbExist((root() + "/cfg").c_str()));
  RemoveConfigDb((root() + "/cfg").c_str());
  EXPECT_EQ(names_in(root() + "/cfguser"), Texts());
}

}  // namespace
