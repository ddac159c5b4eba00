#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/gateway.h"

namespace {

using namespace test;

using ConfSave::TempFile;

struct TempFileTest : Gateway {
  TempFileTest() { file.create(); }

  TempFile file;
};

using NewTempFile = Gateway;

TEST_F(NewTempFile, HasNoFile) {
  const TempFile file;
  EXPECT_EQ(file.name(), "");
  EXPECT_FALSE(file.is_open());
  EXPECT_EQ(thrown([&] { file.fd(); }), "XTOOStatus 36: ");
  EXPECT_EQ(thrown([&] { file.size(); }), "XTOOStatus 36: ");
  EXPECT_EQ(thrown([&] { file.rewind(); }), "XTOOStatus 36: ");
  EXPECT_EQ(temp_files(), Texts());
}

TEST_F(TempFileTest, IsOpenReadsTheDirectory) {
  host.paths.clear();
  EXPECT_TRUE(file.is_open());
  EXPECT_EQ(host.paths, Texts{"KELMOR_TEMP_DIR"});
}

TEST_F(TempFileTest, CreateMakesAnEmptyFileInTheTemporaryDirectory) {
  EXPECT_TRUE(file.is_open());
  EXPECT_EQ(file.name().substr(0, temp_dir().size() + 1), temp_dir() + "/");
  EXPECT_EQ(file.name().size(), temp_dir().size() + 7);
  EXPECT_NE(file.name().substr(file.name().size() - 6), "XXXXXX");
  EXPECT_EQ(file.size(), 0);
  EXPECT_TRUE(exists(file.name()));
  const std::string name = file.name();
  file.create();
  EXPECT_EQ(file.name(), name);
  EXPECT_EQ(temp_files().size(), 1U);
}

TEST_F(NewTempFile, HasMode0600UnderAnyUmask) {
  for (const mode_t mask : {0777U, 0U, 0277U}) {
    const mode_t before = umask(mask);
    TempFile file;
    file.create();
    umask(before);
    EXPECT_EQ(std::filesystem::status(file.name()).permissions(), std::filesystem::perms{0600});
  }
}

TEST_F(TempFileTest, RewindReturnsToTheFirstByte) {
  EXPECT_EQ(write(file.fd(), "abc", 3), 3);
  EXPECT_EQ(file.size(), 3);
  file.rewind();
  char text[4] = {};
  EXPECT_EQ(read(file.fd(), text, 3), 3);
  EXPECT_STREQ(text, "abc");
}

TEST_F(TempFileTest, RemoveDeletesTheFileAndCanBeRepeated) {
  const int fd = file.fd();
  file.remove();
  EXPECT_EQ(file.name(), "");
  EXPECT_FALSE(file.is_open());
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(temp_files(), Texts());
  file.remove();
  file.create();
  EXPECT_EQ(temp_files().size(), 1U);
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(NewTempFile, InAMissingDirectoryIsStatus17) {
  std::filesystem::remove(temp_dir());
  TempFile file;
  EXPECT_EQ(thrown([&] { file.create(); }), "XTOOStatus 17: No such file or directory");
  EXPECT_EQ(file.name(), "");
  EXPECT_FALSE(file.is_open());
  std::filesystem::create_directory(temp_dir());
}

TEST_F(TempFileTest, ClosedDescriptorIsStatus45And54) {
  close(file.fd());
  EXPECT_EQ(thrown([&] { file.size(); }), "XTOOStatus 45: Bad file descriptor");
  EXPECT_EQ(thrown([&] { file.rewind(); }), "XTOOStatus 54: Bad file descriptor");
}

TEST_F(TempFileTest, FileIsClosedBeforeItIsDeleted) {
  std::filesystem::remove(file.name());
  bool closed = false;
  host.on_recorded = [&closed, fd = file.fd()] { closed = fcntl(fd, F_GETFD) == -1; };
  file.remove();
  EXPECT_TRUE(closed);
}

TEST_F(TempFileTest, FileIsForgottenWhenTheLogThrows) {
  host.on_record = [](const std::string&) { throw std::runtime_error("log"); };
  std::filesystem::remove(file.name());
  file.remove();
  EXPECT_FALSE(file.is_open());
  EXPECT_EQ(file.name(), "");
  {
    TempFile destroyed;
    destroyed.create();
    std::filesystem::remove(destroyed.name());
  }
  EXPECT_EQ(host.records, LogRecords());
}

TEST_F(TempFileTest, MissingFileIsLoggedAndForgotten) {
  const std::string name = file.name();
  std::filesystem::remove(name);
  file.remove();
  EXPECT_EQ(host.records,
            LogRecords{says({"void ConfSave::TempFile::remove()", "remove", "source/tempfile"}, 1,
                            name + ": failed to remove temporary file: No such file or directory")});
  EXPECT_EQ(file.name(), "");
  EXPECT_FALSE(file.is_open());
}

}  // namespace
