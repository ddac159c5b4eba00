#include "kelmor/paths.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

namespace {

using toolsunix::FileId;
using toolsunix::path::DirectoryId;
using toolsunix::path::DynamicDirectoryId;

class Paths : public testing::Test {
 protected:
  ~Paths() override {
    for (const char* name : {"KELMOR_CONFIG_PATH", "KELMOR_DYNAMIC_DIR", "KELMOR_TEMP_DIR"}) unsetenv(name);
  }

  static void set(const char* value) {
    for (const char* name : {"KELMOR_CONFIG_PATH", "KELMOR_DYNAMIC_DIR", "KELMOR_TEMP_DIR"}) {
      setenv(name, value, 1);
    }
  }

  const toolsunix::FilenameConvertor& paths = toolsunix::FilenameConvertor::Instance();
};

TEST_F(Paths, TheDefaultsAreThoseOfAnInstalledSystem) {
  for (const bool empty : {false, true}) {
    if (empty) set("");
    EXPECT_EQ(paths.GetKelmorConfigPath(), "/etc/kelmor/");
    EXPECT_EQ(paths.GetFullDynamicDirName(DynamicDirectoryId{1}), "/var/lib/kelmor");
    EXPECT_EQ(paths.GetFullDirName(DirectoryId{1}), "/var/lib/kelmor/scratch");
  }
}

TEST_F(Paths, TheEnvironmentIsReadAtEveryCall) {
  setenv("KELMOR_CONFIG_PATH", "/a", 1);
  setenv("KELMOR_DYNAMIC_DIR", "/b", 1);
  setenv("KELMOR_TEMP_DIR", "/c", 1);
  EXPECT_EQ(paths.GetKelmorConfigPath(), "/a/");
  EXPECT_EQ(paths.GetFullDynamicDirName(DynamicDirectoryId{1}), "/b");
  EXPECT_EQ(paths.GetFullDirName(DirectoryId{1}), "/c");
  set("/d");
  EXPECT_EQ(paths.GetKelmorConfigPath(), "/d/");
  EXPECT_EQ(paths.GetFullDynamicDirName(DynamicDirectoryId{1}), "/d");
  EXPECT_EQ(paths.GetFullDirName(DirectoryId{1}), "/d");
}

TEST_F(Paths, OnlyTheConfigurationDirectoryEndsInASlash) {
  set("/a/b//");
  EXPECT_EQ(paths.GetKelmorConfigPath(), "/a/b//");
  EXPECT_EQ(paths.GetFullDynamicDirName(DynamicDirectoryId{1}), "/a/b");
  EXPECT_EQ(paths.GetFullDirName(DirectoryId{1}), "/a/b");
  set("/");
  EXPECT_EQ(paths.GetKelmorConfigPath(), "/");
  EXPECT_EQ(paths.GetFullDirName(DirectoryId{1}), "/");
}

TEST_F(Paths, EveryFileHasANameOfItsOwn) {
  std::set<std::string> names;
  int number = 0;
  for (const int id : {1, 4, 9, 10, 11, 12, 17, 18, 19, 20, 29, 30, 31}) {
    names.insert(paths.GetShortFilename(FileId{id}));
    ++number;
  }
  EXPECT_EQ(names.size(), static_cast<std::size_t>(number));
  EXPECT_EQ(names.count(""), 0U);
}

TEST_F(Paths, AnUnknownFileHasANameThatIsNotEmpty) {
  EXPECT_EQ(paths.GetShortFilename(FileId{2}), "unassigned-2");
  EXPECT_EQ(paths.GetShortFilename(FileId{-1}), "unassigned--1");
}

}  // namespace
