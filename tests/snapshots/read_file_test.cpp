#include <gtest/gtest.h>

#include "confsave/snapshots.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

class ReadFile : public Gateway {
 protected:
  ReadFile() {
    shell("mkdir -p " + config_dir() + "user " + config_dir() + "station");
    write_file(config_dir() + "user/gateway.conf", "first\n");
    write_file(etc_dir() + "failover.ini", "second\n");
  }

  /// What is passed on, and then the error.
  std::string read(const std::string& path) {
    std::string content;
    const Error error = ConfSave::snapshots::read_file({"weekly"}, path, [&](std::string_view piece) {
      content += piece;
      return Error{};
    });
    if (error.code == Code::ok) return content;
    return content + "(" + std::to_string(static_cast<int>(error.code)) + " " + error.path + ": " +
           error.text + ")";
  }

  static std::string failed(Code code, const std::string& text) {
    return "(" + std::to_string(static_cast<int>(code)) + " " + text + ")";
  }

  /// Replaces the archive of the configuration directory by one of these files, packed by tar.
  void pack(const std::string& commands) {
    shell("cd " + root() + " && rm -rf pack && mkdir pack && cd pack && " + commands);
    Database(database())
        .run("update Config set keybase = x'" +
             output_of("od -An -v -tx1 " + root() + "/pack/archive | tr -d ' \\n'") + "'");
  }

  static std::string output_of(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    std::string text;
    for (int letter = std::getc(pipe); letter != EOF; letter = std::getc(pipe)) {
      text += static_cast<char>(letter);
    }
    pclose(pipe);
    return text;
  }
};

TEST_F(ReadFile, PassesTheContentOfOneMember) {
  EXPECT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  EXPECT_EQ(read(config_dir() + "user/gateway.conf"), "first\n");
  EXPECT_EQ(read(etc_dir() + "failover.ini"), "second\n");
  for (const std::string& path : {config_dir() + "user/none", std::string("user/gateway.conf")}) {
    EXPECT_EQ(read(path), failed(Code::not_found, path + ": the snapshot has no such file"));
  }
}

TEST_F(ReadFile, OfAPathThatIsStoredTwiceTheLaterMemberCounts) {
  EXPECT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  pack(
      "mkdir user; echo old > user/a; tar cf t user/a; ln user/a user/b; tar rf t user/a user/b; "
      "rm user/a; echo new > user/a; tar rf t user/a; gzip -c t > archive");
  EXPECT_EQ(read(config_dir() + "user/a"), "new\n");
  EXPECT_EQ(read(config_dir() + "user/b"), "old\n") << "a hard link has the content of its file";
}

TEST_F(ReadFile, ADirectoryAndALinkHaveNoContent) {
  EXPECT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  pack("mkdir -p user/key_set; ln -s gateway.conf user/link; tar czf archive user");
  for (const char* name : {"user/key_set", "user/link"}) {
    EXPECT_EQ(read(config_dir() + name),
              failed(Code::bad_argument,
                     config_dir() + name + ": this is not a regular file, and has no content"));
  }
}

TEST_F(ReadFile, ADamagedSnapshotGivesNothing) {
  write_file(config_dir() + "user/gateway.conf", std::string(300000, 'x'));
  EXPECT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  Database(database()).run("update Config set etc = x'00'");
  EXPECT_EQ(read(config_dir() + "user/gateway.conf").front(), '(');
  pack("mkdir user; echo content > user/gateway.conf; tar czf a user; head -c -5 a > archive");
  EXPECT_EQ(read(config_dir() + "user/gateway.conf").front(), '(');
}

TEST_F(ReadFile, AnErrorOfTheSinkEndsTheReading) {
  write_file(config_dir() + "user/gateway.conf", std::string(3000000, 'x'));
  EXPECT_TRUE(ConfSave::save("weekly", ConfSave::conf_full, 0, true));
  int calls = 0;
  const Error error =
      ConfSave::snapshots::read_file({"weekly"}, config_dir() + "user/gateway.conf", [&](std::string_view) {
        ++calls;
        return Error{Code::no_space, 28, "out", "No space left on device"};
      });
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(error.code, Code::no_space);
  EXPECT_EQ(error.path, "out");
}

}  // namespace
