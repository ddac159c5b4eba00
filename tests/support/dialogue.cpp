#include "support/dialogue.h"

#include <filesystem>
#include <iostream>
#include <optional>

namespace test {

std::string Dialogue::dialogue(const std::string& typed, const std::function<void()>& call) {
  forget();
  // Tied to a stream of no concern: the library itself must flush a question, and change no tie.
  std::ostream* const tied = std::cin.tie(&std::clog);
  Console console(typed, [this] { expect_nothing_held(); });
  call();
  EXPECT_EQ(std::cin.tie(tied), &std::clog);
  EXPECT_EQ(console.unread(), "");
  expect_nothing_held();
  EXPECT_EQ(open_files(), Texts());
  return console.transcript();
}

void Dialogue::expect_propagation(const std::string& function, const std::function<void()>& call) {
  for (const Thrown& row : every_exception()) {
    fail_in_log(function, row.raise);
    EXPECT_EQ(dialogue("", [&] { EXPECT_EQ(thrown(call), row.text); }), "");
  }
}

void Dialogue::put_snapshot(const std::string& name, ConfSave::int64 version) {
  const std::string dir = root() + "/former/";
  std::filesystem::create_directories(dir + "user");
  write_file(dir + "user/gateway.conf", "former gateway\n");
  write_file(dir + "failover.ini", "former failover\n");
  const Bytes keybase = make_archive(dir, "user/gateway.conf");
  const Bytes etc = make_archive(dir, "failover.ini");
  put({name, version, 1, "1000", "NULL", hex(keybase), hex(etc)});
  sizes = "sz0=" + std::to_string(keybase.size()) + ", sz1=" + std::to_string(etc.size());
}

Tree Dialogue::gateway() const {
  Tree files = tree(config_dir());
  for (const auto& [name, content] : tree(etc_dir())) files[etc_dir() + name] = content;
  return files;
}

Tree Dialogue::restored(Tree files) {
  files["user/gateway.conf"] = "former gateway\n";
  files["/mnt/main/etc/failover.ini"] = "former failover\n";
  files.erase("user/config.db");
  files.erase("user/config.idx");
  return files;
}

void Dialogue::fail_at(std::size_t number, const Raise& raise) {
  host.on_command = [this, number, raise](const std::string&) -> std::optional<int> {
    if (host.commands.size() == number) raise();
    return std::nullopt;
  };
}

}  // namespace test
