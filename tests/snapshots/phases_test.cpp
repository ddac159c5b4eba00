#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <stdexcept>
#include <thread>

#include "snapshots/restoring.h"

namespace {

using namespace test;

class PhasesTest : public Restoring {
 protected:
  PhasesTest() { forget(); }

  /// What was logged about phases, with "N" for the milliseconds.
  Texts phases() const {
    Texts result;
    for (const LogRecord& record : records()) {
      if (record.source != "snapshots/phases") continue;
      EXPECT_EQ(record.level, 4);
      result.push_back(std::regex_replace(record.text, std::regex(" [0-9]+\\.[0-9]{2}"), " N"));
    }
    return result;
  }

  /// The milliseconds of a phase.
  double duration(const std::string& name) const {
    for (const LogRecord& record : records()) {
      std::smatch found;
      if (record.source != "snapshots/phases") continue;
      if (std::regex_search(record.text, found, std::regex("[:,] " + name + " ([0-9.]+)"))) {
        return std::stod(found[1]);
      }
    }
    return -1;
  }
};

void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(30)); }

TEST_F(PhasesTest, ARestore) {
  ASSERT_TRUE(cs::restore({"weekly"}));
  EXPECT_EQ(phases(), Texts{"restore: lock N, recover N, plan N, sync N ms"});
  forget();
  write_file(config("user/gateway.conf"), "damaged\n");
  cs::RestoreOptions options = without_keeping();
  options.progress = [](const cs::Progress& progress) {
    if (progress.phase == cs::Progress::Phase::exchange) pause();
  };
  ASSERT_TRUE(cs::restore({"weekly"}, options));
  EXPECT_EQ(
      phases(),
      Texts{"restore: lock N, recover N, plan N, journal N, stage N, sync N, keep N, lock the storage "
            "N, prepared N, exchange N, exchanged N, commit and clean up N, remove old kept N ms"});
  EXPECT_GE(duration("lock the storage"), 30);
  EXPECT_LT(duration("lock"), 30);
}

TEST_F(PhasesTest, ASave) {
  host.on_command = [](const std::string&) {
    pause();
    return std::optional<int>();
  };
  saved("daily");
  EXPECT_EQ(phases(),
            Texts{"save: list N, pack N, digests N, decode N, compare N, missing N, store N, notes N, "
                  "reserve N ms"});
  EXPECT_GE(duration("pack"), 30);
  forget();
  cs::SaveOptions options;
  options.if_changed = true;
  saved("hourly", options);
  EXPECT_EQ(phases(), Texts{"save: list N, compare with the newest N ms"});
}

TEST_F(PhasesTest, TheyAreDetails) {
  host.log_level = 3;
  saved("daily");
  EXPECT_EQ(phases(), Texts());
}

TEST_F(PhasesTest, ALogThatFailsEndsNothing) {
  fail_in_log("~Phases", [] { throw std::runtime_error("the log is full"); });
  EXPECT_EQ(saved("daily").outcome, cs::Saved::Outcome::created);
  EXPECT_EQ(phases(), Texts());
}

}  // namespace
