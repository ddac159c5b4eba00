#pragma once

#include <chrono>
#include <map>
#include <string>

#include "snapshots/restoring.h"

namespace test {

using namespace std::chrono_literals;

/// Nobody waits for the window: these tests do it themselves.
class PendingTest : public Restoring {
 protected:
  PendingTest() {
    write_file(waiter(), "#!/bin/sh\nprintf . >&3\n");
    shell("chmod 700 " + waiter());
    change();
  }

  /// Says that it waits, and does not.
  std::string waiter() const { return root() + "/waiter"; }

  void change() {
    write_file(config("gw1.conf"), "changed");
    shell("touch -d @1500000000 " + config("gw1.conf") + "; rm " + config("hub/key"));
    write_file(config("user/nat.conf"), "extra");
    before_ = everything(true);
  }

  cs::RestoreOptions windowed(std::chrono::seconds window = 60s) const {
    cs::RestoreOptions options = exactly();
    options.keep = false;
    options.confirm_within = window;
    options.program = waiter();
    return options;
  }

  static cs::SaveOptions overwriting() {
    cs::SaveOptions options;
    options.overwrite = true;
    return options;
  }

  void make_pending() {
    const auto result = cs::restore({"weekly"}, windowed());
    ASSERT_TRUE(result) << shown(result.error());
    ASSERT_EQ(result->outcome, cs::Restored::Outcome::pending);
    ASSERT_EQ(everything(), saved_);
  }

  void journal(const std::string& statement) const { Database(state_dir() + "/restore.db").run(statement); }
  void make_due() const { journal("update restore set deadline = 1"); }
  void restart() const { journal("update restore set boot = 'another'"); }

  std::string load_time() { return query("select load_time from Config where name = 'weekly'")[0][0]; }

  static cs::Error not_confirmed() {
    const auto result = cs::confirm({100ms});
    return result ? cs::Error{} : result.error();
  }

  /// What was done, after a check that it succeeded.
  static cs::Recovery reverted(cs::When when = cs::When::now) {
    const auto result = cs::revert(when, {1s});
    EXPECT_TRUE(result) << shown(result ? cs::Error{} : result.error());
    return result ? *result : cs::Recovery{};
  }

  void expect_as_before() {
    EXPECT_EQ(everything(true), before_);
    EXPECT_EQ(load_time(), "NULL");
    const auto left = cs::unfinished();
    EXPECT_TRUE(left && !*left);
  }

  std::map<std::string, std::string> before_;
};

}  // namespace test
