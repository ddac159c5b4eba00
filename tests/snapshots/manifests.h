#pragma once

#include <gtest/gtest.h>

#include "snapshots/notes.h"
#include "support/expected.h"

namespace test {

/// Writes the manifest of the present files for the row "weekly", as it is now.
inline void write_manifest(const Texts& missing = {}) {
  namespace cs = ConfSave::snapshots;
  cs::Query query;
  query.pattern = "weekly";
  const auto row = cs::find(query);
  ASSERT_TRUE(row);
  auto notes = cs::Notes::open_to_write(std::chrono::milliseconds(1000));
  ASSERT_TRUE(notes);
  auto tree = cs::read_tree(ConfSave::conf_full);
  ASSERT_TRUE(tree);
  cs::Parents parents = cs::parents_of(*tree);
  const cs::Manifest manifest{std::move(*tree), missing, std::move(parents)};
  ASSERT_EQ(notes->replace_manifest(*row, {}, manifest).code, cs::Code::ok);
}

}  // namespace test
