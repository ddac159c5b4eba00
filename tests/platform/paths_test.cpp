#include "kelmor/paths.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace {

using toolsunix::FileId;
using Texts = std::vector<std::string>;

constexpr const char* kVariables[] = {"KELMOR_CONFIG_PATH", "KELMOR_DYNAMIC_DIR", "KELMOR_TEMP_DIR"};

struct Paths : testing::Test {
  ~Paths() override {
    for (const char* name : kVariables) unsetenv(name);
  }

  static void set(const char* value) {
    for (const char* name : kVariables) setenv(name, value, 1);
  }

  /// The directories of the configuration, of the state and of temporary files.
  Texts directories() const {
    return {paths.GetKelmorConfigPath(),
            paths.GetFullDynamicDirName(toolsunix::path::DynamicDirectoryId{1}),
            paths.GetFullDirName(toolsunix::path::DirectoryId{1})};
  }

  const toolsunix::FilenameConvertor& paths = toolsunix::FilenameConvertor::Instance();
};

TEST_F(Paths, UnsetOrEmptyVariablesMeanTheDirectoriesOfAnInstalledSystem) {
  const Texts installed{"/etc/kelmor/", "/var/lib/kelmor", "/var/lib/kelmor/tmp"};
  EXPECT_EQ(directories(), installed);
  set("");
  EXPECT_EQ(directories(), installed);
}

TEST_F(Paths, EnvironmentIsReadAtEveryCall) {
  setenv("KELMOR_CONFIG_PATH", "/a", 1);
  setenv("KELMOR_DYNAMIC_DIR", "/b", 1);
  setenv("KELMOR_TEMP_DIR", "/c", 1);
  EXPECT_EQ(directories(), (Texts{"/a/", "/b", "/c"}));
  set("/d");
  EXPECT_EQ(directories(), (Texts{"/d/", "/d", "/d"}));
}

TEST_F(Paths, AnotherNumberIsAnotherDirectory) {
  set("/a");
  EXPECT_EQ(paths.GetFullDynamicDirName(toolsunix::path::DynamicDirectoryId{2}), "/a-unassigned-2");
  EXPECT_EQ(paths.GetFullDirName(toolsunix::path::DirectoryId{0}), "/a-unassigned-0");
}

TEST_F(Paths, OnlyTheConfigurationDirectoryEndsInASlash) {
  set("/a/b//");
  EXPECT_EQ(directories(), (Texts{"/a/b//", "/a/b", "/a/b"}));
  set("/");
  EXPECT_EQ(directories(), (Texts{"/", "/", "/"}));
}

TEST_F(Paths, EveryFileHasANameOfItsOwn) {
  std::set<std::string> names{""};
  for (const int id : {1, 4, 9, 10, 11, 12, 17, 18, 19, 20, 29, 30, 31}) {
    EXPECT_TRUE(names.insert(paths.GetShortFilename(FileId{id})).second) << id;
  }
}

TEST_F(Paths, UnknownFileIsNamedByItsNumber) {
  EXPECT_EQ(paths.GetShortFilename(FileId{2}), "unassigned-2");
  EXPECT_EQ(paths.GetShortFilename(FileId{-1}), "unassigned--1");
}

}  // namespace
