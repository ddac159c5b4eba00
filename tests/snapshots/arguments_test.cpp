// What a call refuses before it does anything.

#include "snapshots/arguments.h"

#include <functional>

#include "snapshots/exporting.h"

namespace {

using namespace test;
using namespace std::string_literals;
using cs::Code;

template <class Value>
cs::Error error_of(const cs::Result<Value>& result) {
  return result ? cs::Error{} : result.error();
}

cs::Error listing(const std::string& pattern) {
  cs::Query query;
  query.pattern = pattern;
  return error_of(cs::list(query));
}

cs::Error pruning(const std::string& pattern) {
  cs::PruneOptions options;
  options.keep = 1;
  options.pattern = pattern;
  return error_of(cs::prune(options));
}

cs::Error importing(const std::string& file, const std::string& pattern) {
  cs::ImportOptions options;
  options.pattern = pattern;
  options.overwrite = true;
  return error_of(cs::import_from(file, options));
}

cs::Error restoring(const std::string& target, const std::string& program = {}) {
  cs::RestoreOptions options;
  options.target = target;
  options.program = program;
  options.confirm_within = std::chrono::seconds(program.empty() ? 0 : 10);
  return error_of(cs::restore({"weekly"}, options));
}

cs::Error planning(const std::string& target) {
  cs::RestoreOptions options;
  options.target = target;
  return error_of(cs::plan({"weekly"}, options));
}

class Arguments : public Exporting {
 protected:
  /// Every call is refused with this text, and nothing is done.
  void expect_refused(const std::string& text, const std::vector<std::function<cs::Error()>>& calls) {
    write_file(config("gw1.conf"), "changed");
    const auto live = tree(config_dir());
    const Texts names = stored();
    for (std::size_t i = 0; i < calls.size(); ++i) {
      const cs::Error error = calls[i]();
      EXPECT_EQ(error.code, Code::bad_argument) << i << ": " << shown(error);
      EXPECT_EQ(error.text, text) << i;
    }
    EXPECT_EQ(tree(config_dir()), live);
    EXPECT_EQ(stored(), names);
    EXPECT_EQ(names_in(root()), (Texts{"config", "state", "temp"}));
  }
};

TEST_F(Arguments, APatternHasNoNulByte) {
  saved("weekly2");
  const std::string pattern = "*\0-x"s;
  expect_refused("a pattern has no NUL bytes",
                 {[&] { return listing(pattern); }, [&] { return pruning(pattern); },
                  [&] { return importing(exported(), pattern); }});
  EXPECT_EQ(error_of(cs::members({"weekly\0"s})).code, Code::not_found);
  EXPECT_EQ(cs::pin({"weekly\0"s}, true).code, Code::not_found);
}

TEST_F(Arguments, APatternHasALength) {
  EXPECT_EQ(listing(std::string(50'000, '*')).code, Code::ok);
  const std::string pattern(50'001, '*');
  expect_refused("a pattern has at most 50,000 bytes",
                 {[&] { return listing(pattern); }, [&] { return pruning(pattern); },
                  [&] { return importing(exported(), pattern); }});
}

TEST_F(Arguments, APathHasNoNulByte) {
  const std::string live = config_dir() + "\0/other"s;
  expect_refused(
      "a path has no NUL bytes",
      {[&] { return error_of(cs::export_to({{"weekly"}}, root() + "/a\0b"s)); },
       [&] { return error_of(cs::import_from(root() + "/a\0b"s)); }, [&] { return restoring(live); },
       [&] { return planning(live); }, [&] { return restoring("", "/bin/true\0x"s); }});
}

TEST_F(Arguments, AProgramIsNamedFromTheRoot) {
  expect_refused("the program needs an absolute path: it is run from \"/\"",
                 {[] { return restoring("", "bin/true"); }});
}

/// The contract library's characters.
TEST_F(Arguments, ANameHasItsCharacters) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string name(1, static_cast<char>(byte));
    const bool is_valid = ConfSave::VALID_NAME_CHARS.find(name) != std::string::npos;
    EXPECT_EQ(cs::check_id({name}).code == Code::ok, is_valid) << byte;
  }
}

TEST_F(Arguments, ATimeIsOneOfThree) {
  for (const cs::When when : {cs::When::now, cs::When::if_due, cs::When::when_due}) {
    EXPECT_EQ(cs::check_when(when).code, Code::ok);
  }
  for (const int other : {-1, 3}) {
    EXPECT_EQ(cs::check_when(static_cast<cs::When>(other)).text, "the time is not now, if_due or when_due");
    EXPECT_EQ(error_of(cs::revert(static_cast<cs::When>(other))).code, Code::bad_argument);
  }
}

TEST_F(Arguments, AFunctionIsThere) {
  const std::string path = config("gw1.conf");
  expect_refused("the function that takes the bytes is empty",
                 {[&] { return cs::read_file({"weekly"}, path, cs::Sink()); },
                  [] { return error_of(cs::export_to({{"weekly"}}, cs::Sink())); }});
  expect_refused("the function that gives the bytes is empty",
                 {[] { return error_of(cs::import_from(cs::Supply())); }});
}

TEST_F(Arguments, ASnapshotIsExportedOnce) {
  const cs::Ids twice = {{"weekly"}, {"other"}, {"weekly"}};
  expect_refused(
      "'weekly' is to be exported twice",
      {[&] { return error_of(cs::export_to(twice, exported())); },
       [&] { return error_of(cs::export_to(twice, [](std::string_view) { return cs::Error{}; })); }});
  saved("other");
  const std::int64_t old = ConfSave::CURRENT_VERSION;
  Database(database()).run("update Config set name = 'weekly', version = 5 where name = 'other'");
  EXPECT_EQ(done(cs::export_to({{"weekly", old}, {"weekly", 5}}, exported())).snapshots.size(), 2U);
}

}  // namespace
