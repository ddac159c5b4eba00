#pragma once

// Calls of the library as a person at a terminal sees them.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <utility>

#include "confsave.h"
#include "support/console.h"
#include "support/gateway.h"

namespace test {

using Tree = std::map<std::string, std::string>;

/// A transcript and the result of the call.
using Outcome = std::pair<std::string, bool>;

inline const std::string kAskName = "Name for the current configuration: ";
inline const std::string kSavedCurrent = "Kelmor configuration saved.\n";
inline const std::string kPhrase = "Yes, do as I say\n";
inline const std::string kDemand =
    "You are about to overwrite your existing configuration.\n"
    "This is unsafe. To continue, type \n"
    ">>> Yes, do as I say\n"
    "in response to the prompt:\n"
    ">>> ";

/// A whole configuration.
struct Dialogue : Gateway {
  Dialogue() { make_configuration(); }

  /// The transcript of `call`, which must read all that is typed, flush each question, hold no lock while
  /// a person thinks, and leave nothing behind.
  std::string dialogue(const std::string& typed, const std::function<void()>& call);

  /// Checks that `call` prints nothing and propagates every exception of a record of `function`.
  void expect_propagation(const std::string& function, const std::function<void()>& call);

  /// Stores a row with one file in each archive, named as in restored().
  void put_snapshot(const std::string& name = "weekly", ConfSave::int64 version = 0);

  /// Every file, those of the failover directory included.
  Tree gateway() const;

  /// The gateway `files` after the row of put_snapshot() was restored into it.
  static Tree restored(Tree files);

  /// Throws from the command of this number, counted from 1. The others run.
  void fail_at(std::size_t number, const Raise& raise);

  std::string sizes;  ///< of the archives of the latest put_snapshot(), as the log shows them
};

}  // namespace test
