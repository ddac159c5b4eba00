#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <thread>

#include "confsave/snapshots.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

/// "c.u.t path", as a person reads it.
std::string shown(const Difference& difference) {
  if (difference.change == Change::added) return "+.... " + difference.path;
  if (difference.change == Change::removed) return "-.... " + difference.path;
  std::string text;
  text += difference.content ? 'c' : '.';
  text += difference.mode ? 'p' : '.';
  text += difference.owner ? 'u' : '.';
  text += difference.group ? 'g' : '.';
  text += difference.time ? 't' : '.';
  return text + " " + difference.path;
}

class Compare : public Gateway {
 protected:
  Compare() {
    make_configuration();
    save("weekly");
  }

  void save(const std::string& name, ConfSave::conftype type = ConfSave::conf_full) {
    EXPECT_TRUE(ConfSave::save(name, type, 0, true));
  }

  Texts lines(const Result<Differences>& differences) {
    if (!differences) return {differences.error().path + ": " + differences.error().text};
    Texts result;
    for (const Difference& difference : *differences) result.push_back(shown(difference));
    return result;
  }

  Texts since(const std::string& name = "weekly") { return lines(compare({name}, Live())); }

  void in_config(const std::string& command) {
    ASSERT_EQ(shell("cd " + config_dir() + " && " + command), 0) << command;
  }

  std::string config(const std::string& name) { return config_dir() + name; }
};

TEST_F(Compare, NothingChanged) {
  EXPECT_EQ(since(), Texts());
  EXPECT_EQ(lines(compare({"weekly"}, Id{"weekly"})), Texts());
}

/// Not every file was removed: its file system may not be mounted.
TEST_F(Compare, AMissingConfigurationDirectory) {
  in_config("mv ../config ../away");
  EXPECT_EQ(since(), Texts{config_dir() + ": No such file or directory"});
  EXPECT_EQ(since("nosuch"), Texts{": there is no snapshot 'nosuch'"});
}

TEST_F(Compare, EachChangeHasItsMark) {
  const struct {
    const char* command;
    const char* undo;
    Texts lines;
  } cases[] = {
      {"cp -p gw1.conf keep && echo x >> gw1.conf", "mv keep gw1.conf", {"c...t " + config("gw1.conf")}},
      {"cp -p gw1.conf keep && tr a-z b-za < keep > gw1.conf && touch -r keep gw1.conf",
       "mv keep gw1.conf",
       {"c.... " + config("gw1.conf")}},
      {"chmod 604 gw1.conf", "chmod 600 gw1.conf", {".p... " + config("gw1.conf")}},
      {"chown 7 gw1.conf", "chown 0 gw1.conf", {"..u.. " + config("gw1.conf")}},
      {"chgrp 7 gw1.conf", "chgrp 0 gw1.conf", {"...g. " + config("gw1.conf")}},
      {"touch -r gw1.conf keep && touch -d @5 gw1.conf",
       "touch -r keep gw1.conf",
       {"....t " + config("gw1.conf")}},
      {"mv gw1.conf keep", "mv keep gw1.conf", {"-.... " + config("gw1.conf")}},
      {"echo x > gw9", "rm gw9", {"+.... " + config("gw9")}},
      {"echo x > other", "rm other", {}},
      {"mv gw1.conf keep && ln -s keep gw1.conf && touch -hr keep gw1.conf",
       "mv keep gw1.conf",
       {"c.... " + config("gw1.conf")}},
      {"mv gw1.conf keep && mkdir gw1.conf && echo x > gw1.conf/f",
       "rm -r gw1.conf && mv keep gw1.conf",
       {"cp... " + config("gw1.conf"), "+.... " + config("gw1.conf/f")}},
      {"mv user/config.idx keep",
       "mv keep user/config.idx",
       {"-.... " + config("user/config.db"), "-.... " + config("user/config.idx")}},
      {"echo x > user/config.db-journal", "rm user/config.db-journal", {}},
  };
  for (const auto& c : cases) {
    in_config(c.command);
    EXPECT_EQ(since(), c.lines) << c.command;
    in_config(c.undo);
    EXPECT_EQ(since(), Texts()) << c.undo;
  }
}

TEST_F(Compare, FailoverFilesBelongToTheContents) {
  shell("rm " + etc_dir() + "failover.ini");
  EXPECT_EQ(since(), Texts{"-.... " + etc_dir() + "failover.ini"});
  save("part", ConfSave::conf_part);
  save("corlu", ConfSave::conf_corlu);
  write_file(etc_dir() + "failover.ini", "x");
  write_file(config("gw1.conf"), "x");
  EXPECT_EQ(since("part"), Texts{"+.... " + etc_dir() + "failover.ini"});
  EXPECT_EQ(since("corlu"), Texts());
}

TEST_F(Compare, TwoSnapshots) {
  write_file(config("user/gateway.key"), "another key");
  shell("rm " + config("gw2.conf"));
  save("later");
  const auto differences = compare({"weekly"}, Id{"later"});
  EXPECT_EQ(lines(differences),
            (Texts{"-.... " + config("gw2.conf"), "c...t " + config("user/gateway.key")}));
  EXPECT_FALSE(differences->at(0).secret);
  EXPECT_TRUE(differences->at(1).secret);
  EXPECT_EQ(lines(compare({"later"}, Id{"weekly"})),
            (Texts{"+.... " + config("gw2.conf"), "c...t " + config("user/gateway.key")}));
  EXPECT_EQ(compare({"weekly"}, Id{"missing"}).error().code, Code::not_found);
}

TEST_F(Compare, HardLinksAreFiles) {
  in_config("cp -p gw1.conf gw8 && ln gw8 gw7");
  save("linked");
  in_config("cp -p gw7 keep && mv keep gw7");
  EXPECT_EQ(since("linked"), Texts());
  in_config("echo x >> gw7");
  EXPECT_EQ(since("linked"), Texts{"c...t " + config("gw7")});
}

TEST_F(Compare, NoLinkIsFollowedAndNothingElseIsRead) {
  const struct {
    const char* command;
    std::string error;
  } cases[] = {
      {"mv hub keep && ln -s keep hub",
       config("hub") + ": this is not a directory; a link is not followed"},
      {"rm hub && echo x > hub", config("hub") + ": this is not a directory; a link is not followed"},
      {"rm hub && mv keep hub && mkfifo gw9", config("gw9") + ": this is a device or a FIFO"},
  };
  for (const auto& c : cases) {
    in_config(c.command);
    const auto differences = compare({"weekly"}, Live());
    EXPECT_EQ(lines(differences), Texts{c.error}) << c.command;
    EXPECT_TRUE(!differences && differences.error().code == Code::unsafe) << c.command;
  }
}

TEST_F(Compare, ASocketIsSkippedAsTarSkipsIt) {
  in_config("mkdir gwd");
  save("with-directory");
  for (const char* name : {"gwd/s", "gws"}) {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    config(name).copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(descriptor);
  }
  EXPECT_EQ(since("with-directory"), Texts());
}

TEST_F(Compare, AFileThatChangesWhileItIsReadIsNoticed) {
  const std::string file = config("gw1.conf");
  ASSERT_EQ(shell("truncate -s 50M " + file), 0);
  std::atomic<bool> stop = false;
  std::thread writer([&] {
    std::ofstream out(file, std::ios::app);
    while (!stop) out << "x" << std::flush;
  });
  // On a busy machine the writer may sleep through a reading.
  auto differences = compare({"weekly"}, Live());
  for (int attempt = 0; attempt < 100 && differences; ++attempt) differences = compare({"weekly"}, Live());
  stop = true;
  writer.join();
  ASSERT_FALSE(differences);
  EXPECT_EQ(differences.error().code, Code::changed_meanwhile);
  EXPECT_EQ(differences.error().path, file);
}

}  // namespace
