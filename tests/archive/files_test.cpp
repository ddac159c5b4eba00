#include "confsave.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "support/gateway.h"

namespace {

using namespace ConfSave;
using test::LogRecord;
using test::LogRecords;

class Files : public test::Gateway {
 protected:
  std::string user(const std::string& name) const { return config_dir() + "user/" + name; }
  void touch(const std::string& name) const { test::write_file(user(name), name); }

  LogRecord exist_says(const std::string& path, int error) const {
    return {1,
            "bool ConfSave::IsFileExist(const char*)",
            "IsFileExist",
            "source/archive",
            "access() for '" + path + "' failed (code " + std::to_string(error) + ")",
            {4}};
  }
  LogRecord remove_says(const std::string& path, int error) const {
    return {1,
            "void ConfSave::RemoveFileIfExists(const char*)",
            "RemoveFileIfExists",
            "source/archive",
            "unlink() for '" + path + "' failed (code " + std::to_string(error) + ")",
            {4}};
  }
};

void expect_failure(int status, const std::function<void()>& call) {
  const auto error = test::thrown_by<XExternalFailure>(call);
  EXPECT_EQ(error.Status(), status);
  EXPECT_STREQ(error.ErrorMessage(), "");
}

using IsFileExistTest = Files;

TEST_F(IsFileExistTest, AFileAndADirectoryExist) {
  touch("a");
  EXPECT_TRUE(IsFileExist(user("a").c_str()));
  EXPECT_TRUE(IsFileExist(config_dir().c_str()));
  EXPECT_FALSE(IsFileExist(user("b").c_str()));
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(IsFileExistTest, WhatCannotBeFoundOutIsAFailure) {
  touch("a");
  expect_failure(19, [this] { IsFileExist(user("a/b").c_str()); });
  EXPECT_EQ(host.records, LogRecords{exist_says(user("a/b"), 20)});
  host.reset();
  host.log_level = 0;
  expect_failure(19, [this] { IsFileExist(user("a/b").c_str()); });
  EXPECT_EQ(host.records, LogRecords());
}

using RemoveFile = Files;

TEST_F(RemoveFile, ItIsGoneAndMayBeMissing) {
  touch("a");
  RemoveFileIfExists(user("a").c_str());
  EXPECT_FALSE(test::exists(user("a")));
  RemoveFileIfExists(user("a").c_str());
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(RemoveFile, WhatCannotBeDeletedIsAFailure) {
  expect_failure(43, [this] { RemoveFileIfExists(user("").c_str()); });
  EXPECT_EQ(host.records, LogRecords{remove_says(user(""), 21)});
  host.reset();
  host.log_level = 0;
  expect_failure(43, [this] { RemoveFileIfExists(user("").c_str()); });
  EXPECT_EQ(host.records, LogRecords());
}

using ConfigDb = Files;

TEST_F(ConfigDb, ItExistsWhenFiles30And31Do) {
  EXPECT_FALSE(IsConfigDbExist(config_dir().c_str()));
  touch("config.idx");
  EXPECT_FALSE(IsConfigDbExist(config_dir().c_str()));
  touch("config.db");
  EXPECT_TRUE(IsConfigDbExist(config_dir().c_str()));
  std::filesystem::remove(user("config.idx"));
  EXPECT_FALSE(IsConfigDbExist(config_dir().c_str()));
}

TEST_F(ConfigDb, File29IsNotAsked) {
  touch("config.db-journal");
  EXPECT_FALSE(IsConfigDbExist(config_dir().c_str()));
}

TEST_F(ConfigDb, File31IsNotTestedWhenFile30IsMissing) {
  // A loop of links would be a failure if it were looked at.
  std::filesystem::create_symlink(user("config.idx"), user("config.idx"));
  EXPECT_FALSE(IsConfigDbExist(config_dir().c_str()));
  touch("config.db");
  expect_failure(19, [this] { IsConfigDbExist(config_dir().c_str()); });
}

TEST_F(ConfigDb, AllThreeFilesAreRemovedAndNoOther) {
  for (const char* name : {"config.db-journal", "config.db", "config.idx", "gateway.conf"}) touch(name);
  RemoveConfigDb(config_dir().c_str());
  EXPECT_EQ(test::names_in(user("")), std::vector<std::string>{"gateway.conf"});
  RemoveConfigDb(config_dir().c_str());
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(ConfigDb, TheFirstFailureStopsTheRemoval) {
  touch("config.db-journal");
  std::filesystem::create_directory(user("config.db"));
  touch("config.idx");
  expect_failure(43, [this] { RemoveConfigDb(config_dir().c_str()); });
  EXPECT_EQ(test::names_in(user("")), (std::vector<std::string>{"config.db", "config.idx"}));
  EXPECT_EQ(host.records, LogRecords{remove_says(user("config.db"), 21)});
}

TEST_F(ConfigDb, TheDirectoryBringsItsOwnSlash) {
  std::filesystem::create_directory(root() + "/cfguser");
  for (const char* name : {"config.db", "config.idx"}) test::write_file(root() + "/cfguser/" + name, "");
  EXPECT_TRUE(IsConfigDbExist((root() + "/cfg").c_str()));
  RemoveConfigDb((root() + "/cfg").c_str());
  EXPECT_EQ(test::names_in(root() + "/cfguser"), std::vector<std::string>());
}

}  // namespace
